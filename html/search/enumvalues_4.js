var searchData=
[
  ['exclusive_0',['Exclusive',['../classyx_1_1CLockFile.html#adbfcf4bcdb9a2a12868d261f15a6931fae55ce31b9e92005fe8a793196e9c7932',1,'yx::CLockFile::Exclusive()'],['../classyx_1_1IStreamBase.html#adcc3f1305c07c3c1966d79e556032873a9cf346d8fa39ee6db016232600a52f61',1,'yx::IStreamBase::Exclusive()'],['../classkelm_1_1host_1_1FileLock.html#a9010ea1865e125c738eda374284b09e7a2ef50b4c466304dc6ac77bac8a779971',1,'kelm::host::FileLock::Exclusive()']]]
];
