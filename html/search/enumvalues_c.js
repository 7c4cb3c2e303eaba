var searchData=
[
  ['shared_0',['Shared',['../classyx_1_1CLockFile.html#adbfcf4bcdb9a2a12868d261f15a6931faebeaf5f9b993ed296b16178d3b198d08',1,'yx::CLockFile::Shared()'],['../classyx_1_1IStreamBase.html#adcc3f1305c07c3c1966d79e556032873a5be12728615bc9ea1900e8d5a4e578d0',1,'yx::IStreamBase::Shared()'],['../classkelm_1_1host_1_1FileLock.html#a9010ea1865e125c738eda374284b09e7aa6156ea9d66fef24e87e841fbabf7cca',1,'kelm::host::FileLock::Shared()']]],
  ['stays_1',['Stays',['../classkelm_1_1host_1_1DiskWriting.html#ad5e3ba87560a0d110b2ee43b44756ce5adf2d23c4dc0f418306f9169b51b1eed6',1,'kelm::host::DiskWriting']]]
];
