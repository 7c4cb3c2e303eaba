var searchData=
[
  ['yearly_0',['yearly',['../structkelm_1_1host_1_1RetentionRules.html#aadd2ce084fbc73dac5c0aa78ef9d1320',1,'kelm::host::RetentionRules']]]
];
