var searchData=
[
  ['type_0',['Type',['../classkelm_1_1host_1_1FileLock.html#a9010ea1865e125c738eda374284b09e7',1,'kelm::host::FileLock']]]
];
