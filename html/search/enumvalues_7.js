var searchData=
[
  ['known_0',['Known',['../classkelm_1_1host_1_1SalvagedTables.html#a0ace0b741f8838a7250faa1b53dc405aa2f5650e484fa195949ac6c8d11dca4fd',1,'kelm::host::SalvagedTables']]]
];
