var searchData=
[
  ['state_0',['State',['../classkelm_1_1host_1_1SalvagedTables.html#a0ace0b741f8838a7250faa1b53dc405a',1,'kelm::host::SalvagedTables']]]
];
