var searchData=
[
  ['parent_0',['parent',['../structkelm_1_1host_1_1ChainDigests_1_1Grain.html#a7bf11ef11913095b1bfdb3361d41c513',1,'kelm::host::ChainDigests::Grain::parent()'],['../structkelm_1_1host_1_1NewDisk.html#a14566a3945159fc9c7ae2d23c48b9626',1,'kelm::host::NewDisk::parent()'],['../structkelm_1_1host_1_1BackupDisk.html#ac1d2a192894e558f2a5e7614800a5d1e',1,'kelm::host::BackupDisk::parent()']]],
  ['parentcount_1',['parentCount',['../structkelm_1_1host_1_1BackupDisk.html#a7425f117e2d8ac5aa4f4938e747974a2',1,'kelm::host::BackupDisk']]],
  ['parentfile_2',['parentFile',['../structkelm_1_1host_1_1BackupDisk.html#a0ad13cbc57de1607064be746cf7aca0a',1,'kelm::host::BackupDisk::parentFile()'],['../structkelm_1_1host_1_1DiskParts.html#aaf0694c497e799c1ea9d3a3a62c1d703',1,'kelm::host::DiskParts::parentFile()']]],
  ['parentstartbytes_3',['parentStartBytes',['../structkelm_1_1host_1_1FileGrain.html#a9bd6a9ff2988a6790584345d35eeb719',1,'kelm::host::FileGrain']]],
  ['password_4',['password',['../structkelm_1_1host_1_1DiskDropOptions.html#a49612405d28f355db1996964be2f0890',1,'kelm::host::DiskDropOptions::password()'],['../structkelm_1_1host_1_1NewDisk.html#ab9cd162433b0db8e30d8046d18332ae4',1,'kelm::host::NewDisk::password()'],['../structkelm_1_1host_1_1DiskRebaseOptions.html#a756d9e540d41f784e0f60323a046134c',1,'kelm::host::DiskRebaseOptions::password()'],['../structkelm_1_1host_1_1DiskCompactionOptions.html#aee29a8033ff44a8dc81120f7122c0437',1,'kelm::host::DiskCompactionOptions::password()'],['../structkrym_1_1KeyDerivation.html#a13b731f46838b916cef4df5a6b0e304c',1,'krym::KeyDerivation::password()']]],
  ['passwordsizebytes_5',['passwordSizeBytes',['../structkrym_1_1KeyDerivation.html#a4a541dd18d465af2728200c700b8e29a',1,'krym::KeyDerivation']]],
  ['path_6',['path',['../structkelm_1_1host_1_1OpenFile.html#aeb3db9f36cf4e3f6be4b2a1b0116eb6c',1,'kelm::host::OpenFile']]],
  ['place_7',['place',['../structkelm_1_1host_1_1GrainRun.html#a8aa25eb8e53049b937102709d0c58e32',1,'kelm::host::GrainRun']]],
  ['positionbytes_8',['positionBytes',['../structkelm_1_1host_1_1DescriptorFile.html#a8d5dc9970af8272016a115405eb13a7d',1,'kelm::host::DescriptorFile::positionBytes()'],['../structkelm_1_1host_1_1Overlay.html#a55056dba910f132d726a04b5ce23faa6',1,'kelm::host::Overlay::positionBytes()']]],
  ['problem_9',['problem',['../structkelm_1_1host_1_1BackupDisk.html#a66679361275f58f28a9a926fea5c0d8d',1,'kelm::host::BackupDisk']]],
  ['progress_10',['progress',['../structkelm_1_1host_1_1WorkOptions.html#a00ca6167743b98927e6bca24dd1e8353',1,'kelm::host::WorkOptions']]]
];
