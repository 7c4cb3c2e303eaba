var searchData=
[
  ['now_0',['Now',['../classkelm_1_1host_1_1ProgressLines.html#a12f06d3ce1969e82733b9d1fbd04eddb',1,'kelm::host::ProgressLines']]]
];
