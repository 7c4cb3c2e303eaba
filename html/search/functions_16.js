var searchData=
[
  ['zerowriting_0',['ZeroWriting',['../classkelm_1_1host_1_1ZeroWriting.html#a3adc894755f48ee1b242bfd6c0daeaad',1,'kelm::host::ZeroWriting']]]
];
