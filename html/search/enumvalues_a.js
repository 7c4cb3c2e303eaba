var searchData=
[
  ['nospace_0',['NoSpace',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a1a23bcb64723e73590da2f8bde0f3a28',1,'yx::CIOError']]],
  ['notaligned_1',['NotAligned',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45acc7a142e225886193f1e02aa154e9c64',1,'yx::CIOError']]],
  ['notallowed_2',['NotAllowed',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45aa1cd4ac30746c12470ffbf8fc2196a9c',1,'yx::CIOError']]],
  ['notfound_3',['NotFound',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a3f773d694c4d5b9eb04b424029e18ad2',1,'yx::CIOError']]],
  ['notsupported_4',['NotSupported',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45a786bfab5dab8ceb9e510066573f40640',1,'yx::CIOError']]]
];
