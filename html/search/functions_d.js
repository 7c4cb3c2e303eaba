var searchData=
[
  ['nameatwork_0',['nameAtWork',['../structkelm_1_1host_1_1UndoFile.html#a512ba4de950a6407d5209543b615db9d',1,'kelm::host::UndoFile']]],
  ['namefor_1',['nameFor',['../structkelm_1_1host_1_1DiskNote.html#aa11ec90e82f68c89ddfc1bd8d2b8c227',1,'kelm::host::DiskNote']]],
  ['namesgrain_2',['namesGrain',['../classkelm_1_1host_1_1StoredGrains.html#a4e035c1a0db63e537f1a9d34af190e9a',1,'kelm::host::StoredGrains']]],
  ['namewhendone_3',['nameWhenDone',['../structkelm_1_1host_1_1UndoFile.html#a49d310271e1d8978ed867803fa974f40',1,'kelm::host::UndoFile']]],
  ['next_4',['next',['../classyx_1_1TMostRecentlyUsedCache_1_1CEnum.html#a32288eb269db3f190fe7e099795eb47b',1,'yx::TMostRecentlyUsedCache::CEnum']]],
  ['nop_5',['nop',['../classyx_1_1CError.html#aca3dae15ab54a6df230ebdc40dd2e879',1,'yx::CError']]],
  ['normalize_6',['normalize',['../classyx_1_1TPathImpl.html#a10546f6b57ae0c0b420f80975f7f3c45',1,'yx::TPathImpl']]],
  ['normalizecomponent_7',['normalizeComponent',['../classyx_1_1CUnixPathTraits.html#af2d9f63e976157bb012ef5d5fc1fcbbb',1,'yx::CUnixPathTraits::normalizeComponent()'],['../classyx_1_1CWindowsPathTraits.html#a9e8e85c4d53d2d533a0bdbfa6a2ac480',1,'yx::CWindowsPathTraits::normalizeComponent()']]],
  ['normalizeroot_8',['normalizeRoot',['../classyx_1_1CUnixPathTraits.html#a78e48a14c3b7ff5fa77cbe7e03cf2556',1,'yx::CUnixPathTraits::normalizeRoot()'],['../classyx_1_1CWindowsPathTraits.html#a861f6969b3f0930a1ea67e614fa53e21',1,'yx::CWindowsPathTraits::normalizeRoot()']]],
  ['normalizeseparators_9',['normalizeSeparators',['../classyx_1_1CUnixPathTraits.html#aee79f5b3e458cd1e8d1de0172bbdcd9e',1,'yx::CUnixPathTraits::normalizeSeparators()'],['../classyx_1_1CWindowsPathTraits.html#a581e8575af74fecb70c9216d26f5beb5',1,'yx::CWindowsPathTraits::normalizeSeparators()']]],
  ['notechange_10',['noteChange',['../classkelm_1_1CVMDKTableChangeCountRef.html#af42bfbb7fa499dfa27f04c8e9e914baa',1,'kelm::CVMDKTableChangeCountRef']]],
  ['notefailure_11',['noteFailure',['../classkelm_1_1host_1_1UnflushedGrains.html#ae261c7c52aa5b5cea2f1943f7dac70eb',1,'kelm::host::UnflushedGrains']]]
];
