var searchData=
[
  ['wait_0',['wait',['../structkelm_1_1host_1_1RateLimit_1_1Clock.html#ad3b89f3a31b0163c2cb831d7c4aa87e5',1,'kelm::host::RateLimit::Clock']]],
  ['wasreadable_1',['wasReadable',['../structkelm_1_1host_1_1UndoFile_1_1Sector.html#a5a3919f4b62e2ad193c0f1d7960615f5',1,'kelm::host::UndoFile::Sector']]],
  ['weekly_2',['weekly',['../structkelm_1_1host_1_1RetentionRules.html#a5f2693a18ee00911953171bbee30cfab',1,'kelm::host::RetentionRules']]],
  ['wholesizebytes_3',['wholeSizeBytes',['../structkelm_1_1host_1_1FileGrain.html#abb7b60ac31ce1937ecc684039780b65f',1,'kelm::host::FileGrain']]],
  ['withchildren_4',['withChildren',['../structkelm_1_1host_1_1DiskDeletionOptions.html#a0a977cd5bc84567a2a6df7c86e12dbfb',1,'kelm::host::DiskDeletionOptions']]],
  ['withparents_5',['withParents',['../structkelm_1_1host_1_1PasswordChange.html#a251bebbca704cc3bb1ad103f211b1641',1,'kelm::host::PasswordChange']]],
  ['work_6',['work',['../structkelm_1_1host_1_1DiskCompactionOptions.html#ad14265215736bb84bf8cd18b57c8c77d',1,'kelm::host::DiskCompactionOptions::work()'],['../structkelm_1_1host_1_1DiskCopyOptions.html#ace35470d075d5e11a87be659cd5076dc',1,'kelm::host::DiskCopyOptions::work()'],['../structkelm_1_1host_1_1DiskDropOptions.html#aaeeba3c4ee52783fbd0208647784bfc8',1,'kelm::host::DiskDropOptions::work()'],['../structkelm_1_1host_1_1DiskMoveOptions.html#af8d2bb744cf1a9be0bf4afdf97e550aa',1,'kelm::host::DiskMoveOptions::work()'],['../structkelm_1_1host_1_1DiskNote.html#a27f04f7271703c7d563a02cf37e32cce',1,'kelm::host::DiskNote::work()'],['../structkelm_1_1host_1_1DiskRebaseOptions.html#a6fbe4db570f8dadb639a078593334c4a',1,'kelm::host::DiskRebaseOptions::work()']]],
  ['worstcasebytes_7',['worstCaseBytes',['../structkelm_1_1host_1_1ExtentRoom_1_1GrainRoom.html#ae0a644e1e4092e3843b67a7da3b8ead4',1,'kelm::host::ExtentRoom::GrainRoom']]]
];
