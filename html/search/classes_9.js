var searchData=
[
  ['keptdigests_0',['KeptDigests',['../classkelm_1_1host_1_1KeptDigests.html',1,'kelm::host']]],
  ['keptfiles_1',['KeptFiles',['../classkelm_1_1host_1_1KeptFiles.html',1,'kelm::host']]],
  ['keyderivation_2',['KeyDerivation',['../structkrym_1_1KeyDerivation.html',1,'krym']]],
  ['keyderivationsettings_3',['KeyDerivationSettings',['../structkelm_1_1host_1_1KeyDerivationSettings.html',1,'kelm::host']]],
  ['keyderivationwatch_4',['KeyDerivationWatch',['../classkelm_1_1host_1_1KeyDerivationWatch.html',1,'kelm::host']]],
  ['knowngrains_5',['KnownGrains',['../classkelm_1_1host_1_1KnownGrains.html',1,'kelm::host']]]
];
