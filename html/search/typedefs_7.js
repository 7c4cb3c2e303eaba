var searchData=
[
  ['work_0',['Work',['../classkelm_1_1host_1_1OrderedWorkers.html#a22f50dec46db61ed9ecc97ae3a32dc89',1,'kelm::host::OrderedWorkers::Work()'],['../classkelm_1_1host_1_1WorkerPipeline.html#adbd8d3dec6bc82913491ed2a9d32514c',1,'kelm::host::WorkerPipeline::Work()'],['../classkelm_1_1host_1_1GrainPipeline.html#a435000973c13e926bd32ff008c2b73f4',1,'kelm::host::GrainPipeline::Work()']]],
  ['write_1',['Write',['../classkelm_1_1host_1_1ProgressLines.html#a5d718543182caa25f76a071c3cc76e95',1,'kelm::host::ProgressLines']]]
];
