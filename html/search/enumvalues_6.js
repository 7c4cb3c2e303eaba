var searchData=
[
  ['iofailure_0',['IOFailure',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a964e37f38375c2503d436854c402417e',1,'yx::CIOError']]]
];
