var searchData=
[
  ['accessdenied_0',['AccessDenied',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a9837037593470aa1b77ce1b955f08381',1,'yx::CIOError']]],
  ['alreadyexists_1',['AlreadyExists',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a798459fff95906e6854c978a2c6c5f85',1,'yx::CIOError']]]
];
