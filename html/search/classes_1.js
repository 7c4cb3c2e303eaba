var searchData=
[
  ['backupdisk_0',['BackupDisk',['../structkelm_1_1host_1_1BackupDisk.html',1,'kelm::host']]],
  ['busywait_1',['BusyWait',['../classkelm_1_1host_1_1BusyWait.html',1,'kelm::host']]],
  ['byterange_2',['ByteRange',['../structkelm_1_1host_1_1ByteRange.html',1,'kelm::host']]]
];
