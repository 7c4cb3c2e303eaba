var searchData=
[
  ['make_0',['make',['../classkelm_1_1host_1_1DurableFiles.html#a6f1ef388e0c0f7a8022c6767ac52ad41',1,'kelm::host::DurableFiles']]],
  ['makeextentfile_1',['makeExtentFile',['../classkelm_1_1CVMDKDisk.html#aebe5bb04dc9225dc3581896b1c0066a3',1,'kelm::CVMDKDisk']]],
  ['makefile_2',['makeFile',['../classkelm_1_1host_1_1FileLocks.html#abb7d3e86216e06056b715b7f914ffc1b',1,'kelm::host::FileLocks']]],
  ['makegrainencryptiv_3',['makeGrainEncryptIV',['../classkelm_1_1CVMDKGrain.html#a7fd3206a27d4e6dbf978b36f336c483f',1,'kelm::CVMDKGrain']]],
  ['makegrainindependent_4',['makeGrainIndependent',['../classkelm_1_1host_1_1ParentIndependence.html#a402144cb1ae77b19e09c9f6b95c6c74a',1,'kelm::host::ParentIndependence']]],
  ['makegrainindependentofparent_5',['makeGrainIndependentOfParent',['../classkelm_1_1CVMDKSparseExtentFile.html#acbeb4f1966e48ecfcf38c2368b3bcf96',1,'kelm::CVMDKSparseExtentFile::makeGrainIndependentOfParent()'],['../classkelm_1_1host_1_1SafeDisk.html#a6d112618e374d2b14ca5f0449b11fd12',1,'kelm::host::SafeDisk::makeGrainIndependentOfParent()'],['../classkelm_1_1CVMDKOnDemandExtentFile.html#af8368c882990ecc3156cd171267dd060',1,'kelm::CVMDKOnDemandExtentFile::makeGrainIndependentOfParent()'],['../classkelm_1_1CVMDKNullExtentFile.html#a0fce10fef7aec932d3d0fbea98f9afdc',1,'kelm::CVMDKNullExtentFile::makeGrainIndependentOfParent()'],['../classkelm_1_1IVMDKExtentFile.html#a867caf2953141545a324a21cd5cc51c7',1,'kelm::IVMDKExtentFile::makeGrainIndependentOfParent()'],['../classkelm_1_1CVMDKDisk.html#a36d80585f58bd21b2fd2000cb667a57f',1,'kelm::CVMDKDisk::makeGrainIndependentOfParent()']]],
  ['makehashers_6',['makeHashers',['../classkelm_1_1host_1_1ChainDigests.html#ad7e9b96fa5763762b90fc2bdd9759e2d',1,'kelm::host::ChainDigests']]],
  ['makeindependentofparent_7',['makeIndependentOfParent',['../classkelm_1_1CVMDKGrain.html#a054d3cd24757f226f385536466484ab6',1,'kelm::CVMDKGrain']]],
  ['makereached_8',['makeReached',['../classkelm_1_1host_1_1ExtentFiles.html#aa109bbf3f327fc584925e0fc9bb62312',1,'kelm::host::ExtentFiles']]],
  ['markcomplete_9',['markComplete',['../classkelm_1_1host_1_1SafeDisk.html#a4047310a94019b7ca86ad98cfc550d5e',1,'kelm::host::SafeDisk']]],
  ['movefile_10',['moveFile',['../classkelm_1_1host_1_1DiskFileSystem.html#ab63f3190e94a5c36cdd0e2074e90fed0',1,'kelm::host::DiskFileSystem::moveFile()'],['../classkelm_1_1host_1_1IFileMover.html#a700494cb9c856554ca9868072de7135c',1,'kelm::host::IFileMover::moveFile()'],['../classkelm_1_1host_1_1SyncWatch.html#ad40d1f81038e4feb98281eb5b1e73654',1,'kelm::host::SyncWatch::moveFile()']]]
];
