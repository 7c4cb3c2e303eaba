var searchData=
[
  ['problem_0',['Problem',['../classyx_1_1CFileSystemError.html#a62a0c018410a7c22c858537e87935e8d',1,'yx::CFileSystemError']]]
];
