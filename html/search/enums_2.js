var searchData=
[
  ['kind_0',['Kind',['../structkelm_1_1host_1_1CheckedThing.html#a8ff1971aaf3ce55d3d8cd6ab745c6041',1,'kelm::host::CheckedThing']]]
];
