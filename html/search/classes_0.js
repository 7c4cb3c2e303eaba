var searchData=
[
  ['alteredstream_0',['AlteredStream',['../classkelm_1_1host_1_1AlteredStream.html',1,'kelm::host']]]
];
