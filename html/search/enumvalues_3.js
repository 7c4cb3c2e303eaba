var searchData=
[
  ['deleting_0',['Deleting',['../structkelm_1_1host_1_1DiskNote.html#ad03595e8f6f009df82165c184bc41f0aaffbb410a55bb31f801dea6387e2745ac',1,'kelm::host::DiskNote']]],
  ['donotfollowlink_1',['DoNotFollowLink',['../classyx_1_1IFileSystem.html#a01a9b845704457331ed3dedc1a0c9815a27731490cb492b27d2481a359fc7cea3',1,'yx::IFileSystem']]],
  ['donotmakefile_2',['DoNotMakeFile',['../classyx_1_1IFileSystem.html#a01a9b845704457331ed3dedc1a0c9815a099f49d9e7fe1fab2134918fc810af04',1,'yx::IFileSystem']]],
  ['doubtful_3',['Doubtful',['../classkelm_1_1host_1_1SalvagedTables.html#a0ace0b741f8838a7250faa1b53dc405aaedf230cd7f8faa20b19334686abc292b',1,'kelm::host::SalvagedTables']]]
];
