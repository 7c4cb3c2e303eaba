var searchData=
[
  ['encipher_0',['encipher',['../classkelm_1_1host_1_1ResultCipher.html#a361024a8ab5b4ef7cef7af4b80ffe76c',1,'kelm::host::ResultCipher::encipher()'],['../classkelm_1_1CVMDKGrainCipher.html#a3f791661ffa355cb765cd6cec651053b',1,'kelm::CVMDKGrainCipher::encipher()']]],
  ['encrypt_1',['encrypt',['../classkrym_1_1ICipher.html#a71280b7e31265cdbaaa9067dc68a434f',1,'krym::ICipher::encrypt()'],['../classkrym_1_1COpenSSLCipher.html#aff0f8dbd3e039c139a4052efd3ceb42c',1,'krym::COpenSSLCipher::encrypt()']]],
  ['end_2',['end',['../classyx_1_1TArray.html#ad38cf9164e7ab0941c6ae32a986a6ed9',1,'yx::TArray::end()'],['../classyx_1_1TArray.html#a7602d57cd91068b7510ecb05fd25b3a9',1,'yx::TArray::end() const'],['../classyx_1_1TList.html#ac0cf63e380455d8f442b5633615c4a13',1,'yx::TList::end()'],['../classyx_1_1TList.html#a37e956f0940dae7183ec082d63473888',1,'yx::TList::end() const'],['../classyx_1_1TMap.html#a7e2853bda7c2c29ec8ad195960688b0b',1,'yx::TMap::end()'],['../classyx_1_1TMap.html#ad8a1fe1fbc20c89d127f1d77a1b7bb06',1,'yx::TMap::end() const']]],
  ['endall_3',['endAll',['../classkelm_1_1host_1_1FileLocks.html#a72c5aa0e90503902bace53541f21f707',1,'kelm::host::FileLocks']]],
  ['endbytes_4',['endBytes',['../structkelm_1_1host_1_1GrainRun.html#a550779d3b40feaf5387625a7e26b2a51',1,'kelm::host::GrainRun']]],
  ['enforcelimit_5',['enforceLimit',['../classyx_1_1TMostRecentlyUsedCache.html#a955017bea43f361ea36e833c0e00e623',1,'yx::TMostRecentlyUsedCache::enforceLimit()'],['../classkelm_1_1CVMDKGrainTableCache.html#a26762876e6124fb077f99edb66267062',1,'kelm::CVMDKGrainTableCache::enforceLimit()']]],
  ['ensureallocated_6',['ensureAllocated',['../classyx_1_1TBuffer.html#a77033a0b090a158dbe784abdf35b9ed4',1,'yx::TBuffer']]],
  ['ensuredone_7',['ensureDone',['../classkelm_1_1host_1_1ContentIDChange.html#a775f24f1c163320b683a8f97022c0db6',1,'kelm::host::ContentIDChange::ensureDone()'],['../classkelm_1_1host_1_1DigestRemoval.html#a477a0db4eab1cc3a9ae23e85069d2047',1,'kelm::host::DigestRemoval::ensureDone()']]],
  ['ensureparentdiskopen_8',['ensureParentDiskOpen',['../classkelm_1_1CVMDKParentDiskDataProvider.html#af28201a0af13409847d973ef2d32d911',1,'kelm::CVMDKParentDiskDataProvider']]],
  ['extentfiles_9',['ExtentFiles',['../classkelm_1_1host_1_1ExtentFiles.html#a8ca3f8db922c4febe232f1bcf6ceb299',1,'kelm::host::ExtentFiles']]],
  ['extentfindings_10',['ExtentFindings',['../classkelm_1_1host_1_1ExtentFindings.html#a2aa215a551bb6788e1699581db122f63',1,'kelm::host::ExtentFindings']]],
  ['extentgrains_11',['ExtentGrains',['../classkelm_1_1host_1_1ExtentGrains.html#a0025aa1e11e206b69516b8d3effb54eb',1,'kelm::host::ExtentGrains']]],
  ['extentreader_12',['ExtentReader',['../classkelm_1_1host_1_1ExtentReader.html#aef5116c6ff684a966b265911252c7194',1,'kelm::host::ExtentReader']]],
  ['extentroom_13',['ExtentRoom',['../classkelm_1_1host_1_1ExtentRoom.html#a917244b146bf533a8af247231d4171a5',1,'kelm::host::ExtentRoom']]]
];
