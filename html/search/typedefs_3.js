var searchData=
[
  ['fill_0',['Fill',['../classkelm_1_1host_1_1GrainPipeline.html#a4b2fc5c03dd1a0837c85b10c6f0fc9b1',1,'kelm::host::GrainPipeline']]]
];
