var searchData=
[
  ['unexpectedend_0',['UnexpectedEnd',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45aed8e27e6830f953225ceee2cd255208b',1,'yx::CIOError']]],
  ['unsupportedversion_1',['UnsupportedVersion',['../classyx_1_1CIOError.html#a58b35e10a7d9a517b830632843290a45aab719a30c7b0ce93a6b5eb4491fa9772',1,'yx::CIOError']]]
];
