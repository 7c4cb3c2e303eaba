var searchData=
[
  ['drain_0',['Drain',['../classkelm_1_1host_1_1GrainPipeline.html#ad3280a4005697279ad3750a993fb3b3f',1,'kelm::host::GrainPipeline']]]
];
