var searchData=
[
  ['unfinisheddiskerror_0',['UnfinishedDiskError',['../classkelm_1_1host_1_1UnfinishedDiskError.html#a9383f7740ef124abdbf873ed7e96bfbf',1,'kelm::host::UnfinishedDiskError']]],
  ['unlock_1',['unlock',['../classyx_1_1IMutex.html#aae8989bad1b5794c82649983de8c1af2',1,'yx::IMutex::unlock()'],['../classyx_1_1CMutex.html#ab1b3cda76ffef9dd26e9f8f2ed15d556',1,'yx::CMutex::unlock()']]],
  ['unpreparegraindata_2',['unprepareGrainData',['../classkelm_1_1CVMDKDataPreparer.html#a15299e2a3dc4a3d033938648019aa6b9',1,'kelm::CVMDKDataPreparer']]],
  ['unpreparegraindatato_3',['unprepareGrainDataTo',['../classkelm_1_1CVMDKDataPreparer.html#a603537a969a63db7978b3876faeeffed',1,'kelm::CVMDKDataPreparer']]],
  ['unpreparer_4',['Unpreparer',['../classkelm_1_1host_1_1Unpreparer.html#af2577c4dc585c3a825e139e612f0d449',1,'kelm::host::Unpreparer']]],
  ['unseal_5',['unseal',['../classkelm_1_1host_1_1SealedFileSystem.html#a1218f6b4691028f7e8da07424b95e42e',1,'kelm::host::SealedFileSystem']]],
  ['update_6',['update',['../classkrym_1_1IDigest.html#aa10e5af8d9897abe5c5329c4a999d546',1,'krym::IDigest::update()'],['../classkrym_1_1CHasher__SHA256.html#a88786ac2f14143d739fea7a5dcfc6d8f',1,'krym::CHasher_SHA256::update()'],['../classkrym_1_1COpenSSLDigest.html#a39c6870ca11f8688665cb1fbfa0ecbe2',1,'krym::COpenSSLDigest::update()']]],
  ['updateinnerfileobject_7',['updateInnerFileObject',['../classkelm_1_1CVMDKOnDemandExtentFile.html#a40d4325ebbb89d5b4d59805dfaa88777',1,'kelm::CVMDKOnDemandExtentFile']]],
  ['usedisk_8',['useDisk',['../classkelm_1_1host_1_1DiskReading.html#a446e9c57f63fcddd8330dff985eb5e69',1,'kelm::host::DiskReading']]]
];
