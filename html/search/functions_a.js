var searchData=
[
  ['keep_0',['keep',['../classkelm_1_1host_1_1FileGuard.html#af6f35e92aa1a8e491d2b01dedfde5b70',1,'kelm::host::FileGuard::keep()'],['../classkelm_1_1host_1_1FormerDisk.html#ae222aee491769e640aec9f08aefd981b',1,'kelm::host::FormerDisk::keep()'],['../classkelm_1_1host_1_1TableLimit.html#ad8f9ec21e8253fac3d2f3ba2c66b2c64',1,'kelm::host::TableLimit::keep()'],['../classkelm_1_1host_1_1DigestMaking.html#ae36e51db5e67ec4b9507ae6ccb8f0a0e',1,'kelm::host::DigestMaking::keep()']]],
  ['keptdigests_1',['KeptDigests',['../classkelm_1_1host_1_1KeptDigests.html#ac4d65ea0d76cafe003f7cc384f64399f',1,'kelm::host::KeptDigests']]],
  ['keptfiles_2',['KeptFiles',['../classkelm_1_1host_1_1KeptFiles.html#a9f4d1f4fd900eda95767090d5aa4ff9e',1,'kelm::host::KeptFiles']]],
  ['keyderivationwatch_3',['KeyDerivationWatch',['../classkelm_1_1host_1_1KeyDerivationWatch.html#aec85ec873781692998b0a62a5734c1d1',1,'kelm::host::KeyDerivationWatch']]]
];
