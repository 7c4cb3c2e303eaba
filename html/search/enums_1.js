var searchData=
[
  ['code_0',['Code',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45',1,'yx::CIOError']]],
  ['content_1',['Content',['../classkelm_1_1host_1_1DiskWriting.html#ad5e3ba87560a0d110b2ee43b44756ce5',1,'kelm::host::DiskWriting']]]
];
