var searchData=
[
  ['zerowriting_0',['ZeroWriting',['../classkelm_1_1host_1_1ZeroWriting.html',1,'kelm::host']]]
];
