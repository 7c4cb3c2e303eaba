var searchData=
[
  ['label_0',['label',['../structkelm_1_1host_1_1PruneOptions.html#a3da810682420f4f45f6148a2654f0c00',1,'kelm::host::PruneOptions::label()'],['../structkelm_1_1host_1_1NewDisk.html#a1e30b079c85962da48b050d9289fdc10',1,'kelm::host::NewDisk::label()'],['../structkelm_1_1host_1_1BackupDisk.html#aa4506592a436ff75aa95c68abe3ced63',1,'kelm::host::BackupDisk::label()']]],
  ['last_1',['last',['../structkelm_1_1host_1_1RetentionRules.html#a44001522259d0ff39920dcf8a1f41f81',1,'kelm::host::RetentionRules']]],
  ['left_2',['left',['../structkelm_1_1host_1_1ExtentRepair.html#ad5d384a793bd059e6cd0b3006d11823f',1,'kelm::host::ExtentRepair::left()'],['../structkelm_1_1host_1_1FileRepair.html#ae7ec3cb16d6026af45f7deaca2855392',1,'kelm::host::FileRepair::left()'],['../structkelm_1_1host_1_1ParentSwap_1_1Parents.html#a4d294fa685447e93bc0b5428efb7427a',1,'kelm::host::ParentSwap::Parents::left()']]],
  ['leftbytes_3',['leftBytes',['../structkelm_1_1host_1_1Comparison.html#a404e16492a508dd8328ee4fd8cfc9eb4',1,'kelm::host::Comparison']]],
  ['length_4',['length',['../structkelm_1_1host_1_1TextSpan.html#afec9be8f7864a078a4e67d4f76345071',1,'kelm::host::TextSpan']]],
  ['lengthbytes_5',['lengthBytes',['../structkelm_1_1host_1_1UndoFile_1_1File.html#a6d24733765cb31ee35c69ed79ca1cb50',1,'kelm::host::UndoFile::File::lengthBytes()'],['../structkelm_1_1host_1_1GrainRun.html#a77722cb9bc58fe5e40bbb17f37b750fd',1,'kelm::host::GrainRun::lengthBytes()'],['../structkelm_1_1host_1_1FileUse.html#af5ca11ef46747be8e249eb8c3c368446',1,'kelm::host::FileUse::lengthBytes()']]],
  ['level_6',['level',['../structyx_1_1LogEntry.html#a663f56655878d94271881eb62bb4506c',1,'yx::LogEntry::level()'],['../structkelm_1_1host_1_1ChainGrains_1_1Holder.html#a5e376aaf10f2b7e3eafeb8e53e7d2d27',1,'kelm::host::ChainGrains::Holder::level()']]],
  ['lookin_7',['lookIn',['../structkelm_1_1host_1_1DiskDeletionOptions.html#a5ce7da5ebb8b125e16ad8f4425864c21',1,'kelm::host::DiskDeletionOptions::lookIn()'],['../structkelm_1_1host_1_1DiskDropOptions.html#a3012cd57de5de34ebe7b1f553ac8ff95',1,'kelm::host::DiskDropOptions::lookIn()'],['../structkelm_1_1host_1_1DiskMoveOptions.html#a9e6951d02e34c8c1d51e634e8584f1b3',1,'kelm::host::DiskMoveOptions::lookIn()']]],
  ['lost_8',['lost',['../structkelm_1_1host_1_1ReadGrain.html#a6abfcefc94667190b384856e4abfffcf',1,'kelm::host::ReadGrain']]]
];
