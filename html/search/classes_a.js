var searchData=
[
  ['logentry_0',['LogEntry',['../structyx_1_1LogEntry.html',1,'yx']]]
];
