var searchData=
[
  ['unfinished_0',['unfinished',['../structkelm_1_1host_1_1DiskTrust.html#a56f9991c4a50fb9d7b9429dd635d4e8e',1,'kelm::host::DiskTrust']]],
  ['uri_1',['uri',['../structkelm_1_1host_1_1UndoFile_1_1File.html#a6f8e40f4c27139b058deebb89bc9c81e',1,'kelm::host::UndoFile::File::uri()'],['../structkelm_1_1host_1_1DiskExtent.html#aa698853bb9b24cbfe4553ff390093a3d',1,'kelm::host::DiskExtent::uri()']]]
];
