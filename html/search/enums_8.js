var searchData=
[
  ['work_0',['Work',['../structkelm_1_1host_1_1DiskNote.html#ad03595e8f6f009df82165c184bc41f0a',1,'kelm::host::DiskNote']]]
];
