var searchData=
[
  ['headercheck_0',['HeaderCheck',['../classkelm_1_1host_1_1HeaderCheck.html',1,'kelm::host']]],
  ['headeroverlay_1',['HeaderOverlay',['../classkelm_1_1host_1_1HeaderOverlay.html',1,'kelm::host']]],
  ['holder_2',['Holder',['../structkelm_1_1host_1_1ChainGrains_1_1Holder.html',1,'kelm::host::ChainGrains']]]
];
