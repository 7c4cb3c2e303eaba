var searchData=
[
  ['joined_0',['joined',['../structkelm_1_1host_1_1ParentSwap_1_1Parents.html#ae050768b6a41a6f73c94e8c3784af7c9',1,'kelm::host::ParentSwap::Parents']]],
  ['judge_1',['judge',['../classkelm_1_1host_1_1RetentionPolicy.html#a1c24fc2cd09f2c7fbc064469561e57da',1,'kelm::host::RetentionPolicy']]]
];
