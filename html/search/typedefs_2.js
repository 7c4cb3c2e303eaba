var searchData=
[
  ['explain_0',['Explain',['../classkelm_1_1host_1_1GrainPipeline.html#a19c8e77c30a0ff79f1c779217177cdc6',1,'kelm::host::GrainPipeline']]],
  ['extententry_1',['ExtentEntry',['../classkelm_1_1CVMDKDisk.html#a7b55496274ea90797e9d22de3577ccc0',1,'kelm::CVMDKDisk']]],
  ['extentmap_2',['ExtentMap',['../classkelm_1_1CVMDKDisk.html#afdad4ed0dfda80d6001d197f8541ff1d',1,'kelm::CVMDKDisk']]]
];
