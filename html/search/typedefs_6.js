var searchData=
[
  ['set_0',['Set',['../classkelm_1_1host_1_1GrainCiphers.html#af2bdaa849ae31eeb0107265aa7e3aec8',1,'kelm::host::GrainCiphers']]]
];
