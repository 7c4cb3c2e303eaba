var searchData=
[
  ['after_0',['after',['../structkelm_1_1host_1_1PasswordChange.html#a334261aedd3f70b823cf888865e43c07',1,'kelm::host::PasswordChange::after()'],['../structkelm_1_1host_1_1UndoFile_1_1Sector.html#a9968f5f9f51ea70b0205346d0829e3c2',1,'kelm::host::UndoFile::Sector::after()']]],
  ['allocatedbytes_1',['allocatedBytes',['../structkelm_1_1host_1_1FileUse.html#a01e00ffed7b0c2a8f81b040c166450ad',1,'kelm::host::FileUse']]],
  ['allowedpaths_2',['allowedPaths',['../structkelm_1_1host_1_1DiskTrust.html#af7586e78ebf49b3d8bf2be21862f52cb',1,'kelm::host::DiskTrust']]],
  ['allowoversize_3',['allowOversize',['../structkelm_1_1host_1_1DiskTrust.html#aef702ab2f5efde7e37673a7ec3838cd2',1,'kelm::host::DiskTrust']]],
  ['area_4',['area',['../structkelm_1_1host_1_1DescriptorFile.html#aeea2a483e6ea7b8e646a659edad5170a',1,'kelm::host::DescriptorFile']]],
  ['aux1_5',['aux1',['../structkelm_1_1host_1_1GrainItem.html#a2f845530c0bc3d52f0fc42bf3443a1f9',1,'kelm::host::GrainItem']]],
  ['aux2_6',['aux2',['../structkelm_1_1host_1_1GrainItem.html#a5c0cbc3c1fcaa2976770102b5a64cb16',1,'kelm::host::GrainItem']]]
];
