var searchData=
[
  ['grain_0',['Grain',['../structkelm_1_1host_1_1CheckedThing.html#a8ff1971aaf3ce55d3d8cd6ab745c6041af45f481029006e3c6e5e336582b2dc29',1,'kelm::host::CheckedThing']]]
];
