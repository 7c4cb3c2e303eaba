var searchData=
[
  ['grain_0',['Grain',['../structkelm_1_1host_1_1ChainDigests_1_1Grain.html',1,'kelm::host::ChainDigests']]],
  ['grainciphers_1',['GrainCiphers',['../classkelm_1_1host_1_1GrainCiphers.html',1,'kelm::host']]],
  ['graincounts_2',['GrainCounts',['../structkelm_1_1host_1_1GrainCounts.html',1,'kelm::host']]],
  ['grainhasher_3',['GrainHasher',['../classkelm_1_1host_1_1GrainHasher.html',1,'kelm::host']]],
  ['grainitem_4',['GrainItem',['../structkelm_1_1host_1_1GrainItem.html',1,'kelm::host']]],
  ['grainknowledge_5',['GrainKnowledge',['../structkelm_1_1host_1_1GrainKnowledge.html',1,'kelm::host']]],
  ['grainpipeline_6',['GrainPipeline',['../classkelm_1_1host_1_1GrainPipeline.html',1,'kelm::host']]],
  ['grainroom_7',['GrainRoom',['../structkelm_1_1host_1_1ExtentRoom_1_1GrainRoom.html',1,'kelm::host::ExtentRoom']]],
  ['grainrun_8',['GrainRun',['../structkelm_1_1host_1_1GrainRun.html',1,'kelm::host']]],
  ['grainsahead_9',['GrainsAhead',['../classkelm_1_1host_1_1GrainsAhead.html',1,'kelm::host']]],
  ['grainsample_10',['GrainSample',['../classkelm_1_1host_1_1GrainSample.html',1,'kelm::host']]],
  ['grainset_11',['GrainSet',['../classkelm_1_1host_1_1GrainSet.html',1,'kelm::host']]],
  ['grainstretch_12',['GrainStretch',['../structkelm_1_1host_1_1GrainStretch.html',1,'kelm::host']]],
  ['graintables_13',['GrainTables',['../classkelm_1_1host_1_1GrainTables.html',1,'kelm::host']]]
];
