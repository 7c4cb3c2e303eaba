var searchData=
[
  ['openoption_0',['OpenOption',['../classyx_1_1IFileSystem.html#a01a9b845704457331ed3dedc1a0c9815',1,'yx::IFileSystem']]]
];
