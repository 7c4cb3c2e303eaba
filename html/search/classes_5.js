var searchData=
[
  ['file_0',['File',['../structkelm_1_1host_1_1UndoFile_1_1File.html',1,'kelm::host::UndoFile']]],
  ['filedescriptor_1',['FileDescriptor',['../classkelm_1_1host_1_1FileDescriptor.html',1,'kelm::host']]],
  ['filegrain_2',['FileGrain',['../structkelm_1_1host_1_1FileGrain.html',1,'kelm::host']]],
  ['fileguard_3',['FileGuard',['../classkelm_1_1host_1_1FileGuard.html',1,'kelm::host']]],
  ['fileidentity_4',['FileIdentity',['../structkelm_1_1host_1_1FileIdentity.html',1,'kelm::host']]],
  ['filelock_5',['FileLock',['../classkelm_1_1host_1_1FileLock.html',1,'kelm::host']]],
  ['filelocks_6',['FileLocks',['../classkelm_1_1host_1_1FileLocks.html',1,'kelm::host']]],
  ['filerepair_7',['FileRepair',['../structkelm_1_1host_1_1FileRepair.html',1,'kelm::host']]],
  ['fileuse_8',['FileUse',['../structkelm_1_1host_1_1FileUse.html',1,'kelm::host']]],
  ['findingfold_9',['FindingFold',['../classkelm_1_1host_1_1FindingFold.html',1,'kelm::host']]],
  ['formerdisk_10',['FormerDisk',['../classkelm_1_1host_1_1FormerDisk.html',1,'kelm::host']]],
  ['forwardingstream_11',['ForwardingStream',['../classkelm_1_1host_1_1ForwardingStream.html',1,'kelm::host']]]
];
