var searchData=
[
  ['before_0',['before',['../structkelm_1_1host_1_1PasswordChange.html#a6d87ba47a5cf21152c109b018caa6e65',1,'kelm::host::PasswordChange::before()'],['../structkelm_1_1host_1_1UndoFile_1_1Sector.html#a65270f1df612e8bc55a7b4299364cfcd',1,'kelm::host::UndoFile::Sector::before()']]],
  ['birthnanoseconds_1',['birthNanoseconds',['../structkelm_1_1host_1_1FileIdentity.html#a808a95595827aa0bbebb901c1936bc1c',1,'kelm::host::FileIdentity']]],
  ['birthseconds_2',['birthSeconds',['../structkelm_1_1host_1_1FileIdentity.html#ae3c8c6ee7972bc68e5358d51f4ee1019',1,'kelm::host::FileIdentity']]],
  ['bytes_3',['bytes',['../structkelm_1_1host_1_1CheckedThing.html#ae971a2aca933aaa634dd1c4a670bde13',1,'kelm::host::CheckedThing::bytes()'],['../structkelm_1_1host_1_1Overlay.html#aa48839c4899e274ba97bdae0c53444d3',1,'kelm::host::Overlay::bytes()'],['../structkelm_1_1host_1_1ReadableSectors.html#a22a1cec38958d292daa917d646da8ddf',1,'kelm::host::ReadableSectors::bytes()'],['../structkelm_1_1host_1_1ImageLength.html#a58dbb15405d020d4325f7a8cd16521e4',1,'kelm::host::ImageLength::bytes()']]],
  ['bytesafter_4',['bytesAfter',['../structkelm_1_1host_1_1CompactedFile.html#af64942214b3c627a18216b4a78d58634',1,'kelm::host::CompactedFile::bytesAfter()'],['../structkelm_1_1host_1_1CompactionPlan.html#a0aa1b3819dbb4a25383dea8089a2b6cf',1,'kelm::host::CompactionPlan::bytesAfter()']]],
  ['bytesbefore_5',['bytesBefore',['../structkelm_1_1host_1_1CompactedFile.html#a1cc6e404b9237660ee831961795b80d4',1,'kelm::host::CompactedFile::bytesBefore()'],['../structkelm_1_1host_1_1CompactionPlan.html#a23a7c828ab09031a723a8b0ab3a453b4',1,'kelm::host::CompactionPlan::bytesBefore()']]]
];
