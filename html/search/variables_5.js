var searchData=
[
  ['file_0',['file',['../structkelm_1_1host_1_1FileRepair.html#a072c0f34fbdf7f5faf7cbe662aca7f63',1,'kelm::host::FileRepair::file()'],['../structkelm_1_1host_1_1DiskDigests.html#af9ce81b774c6fa62bd85c7e58deab666',1,'kelm::host::DiskDigests::file()'],['../structkelm_1_1host_1_1DamagedTablePlace.html#a36f1606eca93ebd56fd2ff857c13427d',1,'kelm::host::DamagedTablePlace::file()'],['../structkelm_1_1host_1_1DamagedStretch.html#a50bd28aefdcc1783759b91535055076e',1,'kelm::host::DamagedStretch::file()'],['../structkelm_1_1host_1_1CompactedFile.html#ab75954a7dbb8efe715e84c5aba38df8d',1,'kelm::host::CompactedFile::file()']]],
  ['filecount_1',['fileCount',['../structkelm_1_1host_1_1BackupDisk.html#a1f9fc190e6336a66a1364871824908a7',1,'kelm::host::BackupDisk']]],
  ['filedescriptor_2',['fileDescriptor',['../structkelm_1_1host_1_1OpenFile.html#ad2cdd925131fcbfb0760421a98c0b838',1,'kelm::host::OpenFile']]],
  ['filekey_3',['fileKey',['../structkelm_1_1host_1_1DigestKeys.html#ab3826c359bd771db9f56972f91702b39',1,'kelm::host::DigestKeys']]],
  ['files_4',['files',['../structkelm_1_1host_1_1DiskMoveResult.html#aa1ab2584b65333aabdea350148acca24',1,'kelm::host::DiskMoveResult::files()'],['../structkelm_1_1host_1_1UndoFile.html#ab276b118d2305bc5a59d04cd92a3ce1c',1,'kelm::host::UndoFile::files()'],['../structkelm_1_1host_1_1RepairReport.html#a3fdeb4a0fbdcbb077c5ec537ea793aee',1,'kelm::host::RepairReport::files()'],['../structkelm_1_1host_1_1DiskNote.html#a36bef3c2d6456e33a0479c63319c2b26',1,'kelm::host::DiskNote::files()'],['../structkelm_1_1host_1_1DiskDropResult.html#a36ef4d3cc24cf75385af41a850b3d4b7',1,'kelm::host::DiskDropResult::files()']]],
  ['filesizelimitbytes_5',['fileSizeLimitBytes',['../structkelm_1_1host_1_1NewDisk.html#ae547b2be50c16c422139338f45fdf348',1,'kelm::host::NewDisk']]],
  ['findingcount_6',['findingCount',['../structkelm_1_1host_1_1CheckResult.html#a4aa79f9a69429ae6ec3f305e36cf461e',1,'kelm::host::CheckResult']]],
  ['firstdifferencebytes_7',['firstDifferenceBytes',['../structkelm_1_1host_1_1Comparison.html#a64731fbeb06417947ae509b2b214802c',1,'kelm::host::Comparison']]],
  ['firstsector_8',['firstSector',['../structkelm_1_1host_1_1RegularExtent.html#a3c7c445eb2bce7f23f1fe8269fd8a607',1,'kelm::host::RegularExtent']]],
  ['flushintervalbytes_9',['flushIntervalBytes',['../structkelm_1_1host_1_1WorkOptions.html#aee9d431744f94142614e88d6da511292',1,'kelm::host::WorkOptions']]],
  ['fromparent_10',['fromParent',['../structkelm_1_1host_1_1SalvageOptions.html#aedfa046ed15f2792bbf45d69daff3a96',1,'kelm::host::SalvageOptions']]]
];
