var searchData=
[
  ['locktype_0',['LockType',['../classyx_1_1CLockFile.html#adbfcf4bcdb9a2a12868d261f15a6931f',1,'yx::CLockFile::LockType()'],['../classyx_1_1IStreamBase.html#adcc3f1305c07c3c1966d79e556032873',1,'yx::IStreamBase::LockType()']]]
];
