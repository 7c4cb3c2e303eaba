var searchData=
[
  ['workerpipeline_0',['WorkerPipeline',['../classkelm_1_1host_1_1WorkerPipeline.html',1,'kelm::host']]],
  ['workerpipeline_3c_20grainitem_20_3e_1',['WorkerPipeline&lt; GrainItem &gt;',['../classkelm_1_1host_1_1WorkerPipeline.html',1,'kelm::host']]],
  ['workerpipeline_3c_20kelm_3a_3ahost_3a_3agrainitem_20_3e_2',['WorkerPipeline&lt; kelm::host::GrainItem &gt;',['../classkelm_1_1host_1_1WorkerPipeline.html',1,'kelm::host']]],
  ['workoptions_3',['WorkOptions',['../structkelm_1_1host_1_1WorkOptions.html',1,'kelm::host']]],
  ['writtengrainreader_4',['WrittenGrainReader',['../classkelm_1_1host_1_1WrittenGrainReader.html',1,'kelm::host']]]
];
