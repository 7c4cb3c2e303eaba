var searchData=
[
  ['lockingnotsupported_0',['LockingNotSupported',['../classyx_1_1CFileSystemError.html#a62a0c018410a7c22c858537e87935e8da97e8588fb8c0e0607d21c352d97d643a',1,'yx::CFileSystemError']]],
  ['lost_1',['Lost',['../classkelm_1_1host_1_1SalvagedTables.html#a0ace0b741f8838a7250faa1b53dc405aab578b733cbb788fc6ad208314d2c4c2b',1,'kelm::host::SalvagedTables']]]
];
