var searchData=
[
  ['buffer_0',['Buffer',['../structkelm_1_1host_1_1GrainItem.html#a46bbaf5f9b0a2692ab4d522c0cbfa382',1,'kelm::host::GrainItem']]],
  ['bytes_1',['Bytes',['../classkelm_1_1host_1_1ExtentReader.html#ae55b968ce49343d8bbf8f7745be8c892',1,'kelm::host::ExtentReader']]]
];
