var searchData=
[
  ['moving_0',['Moving',['../structkelm_1_1host_1_1DiskNote.html#ad03595e8f6f009df82165c184bc41f0aadefe967ad0373b2274fc298f19125ca7',1,'kelm::host::DiskNote']]]
];
