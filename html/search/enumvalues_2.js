var searchData=
[
  ['changes_0',['Changes',['../classkelm_1_1host_1_1DiskWriting.html#ad5e3ba87560a0d110b2ee43b44756ce5ac112bb3542e98308d12d5ecb10a67abc',1,'kelm::host::DiskWriting']]],
  ['closed_1',['Closed',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a58453a46b42dba41ff9ff41211a18eab',1,'yx::CIOError']]],
  ['copying_2',['Copying',['../structkelm_1_1host_1_1DiskNote.html#ad03595e8f6f009df82165c184bc41f0aa95165c2a0b7cc0d33c7a0b0844efcf22',1,'kelm::host::DiskNote']]],
  ['corruptdata_3',['CorruptData',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a140efeace0c340b6c911ebe1a688e448',1,'yx::CIOError']]]
];
