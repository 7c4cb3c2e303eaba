var searchData=
[
  ['badposition_0',['BadPosition',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45ad566b399faa0e0635fbaa9aca9996e88',1,'yx::CIOError']]]
];
