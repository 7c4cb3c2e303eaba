var searchData=
[
  ['obstacle_0',['obstacle',['../structkelm_1_1host_1_1CompactedFile.html#a5d40a9c8baaaf1d3478e921aa7bb5f42',1,'kelm::host::CompactedFile::obstacle()'],['../structkelm_1_1host_1_1CompactionPlan.html#aa06d09aab60948f0d568a73c8b8795c8',1,'kelm::host::CompactionPlan::obstacle()']]],
  ['ofdisk_1',['ofDisk',['../structkelm_1_1host_1_1ChainPasswords.html#aea54c7ea4a3dcc5ca6c6e95770e39389',1,'kelm::host::ChainPasswords']]],
  ['ofparents_2',['ofParents',['../structkelm_1_1host_1_1ChainPasswords.html#aeb0e8ac1dc906ccac0111d8b461134f7',1,'kelm::host::ChainPasswords::ofParents()'],['../structkelm_1_1host_1_1GrainItem.html#aae4579c722a4ad00b13a75b4b08d82b1',1,'kelm::host::GrainItem::ofParents()']]],
  ['oldparent_3',['oldParent',['../structkelm_1_1host_1_1ParentSwap_1_1Parents.html#a815ef2679a73bde41c1f0d1b0c6d9980',1,'kelm::host::ParentSwap::Parents']]],
  ['outofdate_4',['outOfDate',['../structkelm_1_1host_1_1CheckResult.html#a0580e94264afd759073f53271266f17b',1,'kelm::host::CheckResult']]],
  ['overheadsectors_5',['overheadSectors',['../structkelm_1_1host_1_1RegularPlaces.html#a67ba036ab68de2c1cb21c6cc9b60bc28',1,'kelm::host::RegularPlaces']]],
  ['ownbytes_6',['ownBytes',['../structkelm_1_1host_1_1BackupDisk.html#aac75c37dc7e4c9e0b6072c35093916bb',1,'kelm::host::BackupDisk']]],
  ['ownonly_7',['ownOnly',['../structkelm_1_1host_1_1CheckScope.html#a98fcdb0337eeadb84b441b18d79368dc',1,'kelm::host::CheckScope']]]
];
