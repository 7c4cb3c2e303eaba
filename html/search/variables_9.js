var searchData=
[
  ['joined_0',['joined',['../structkelm_1_1host_1_1ParentSwap_1_1Parents.html#ae050768b6a41a6f73c94e8c3784af7c9',1,'kelm::host::ParentSwap::Parents']]]
];
