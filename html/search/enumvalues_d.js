var searchData=
[
  ['table_0',['Table',['../structkelm_1_1host_1_1CheckedThing.html#a8ff1971aaf3ce55d3d8cd6ab745c6041a51c45b795d5d18a3e4e0c37e8b20a141',1,'kelm::host::CheckedThing']]]
];
