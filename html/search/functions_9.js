var searchData=
[
  ['judge_0',['judge',['../classkelm_1_1host_1_1RetentionPolicy.html#a1c24fc2cd09f2c7fbc064469561e57da',1,'kelm::host::RetentionPolicy']]]
];
