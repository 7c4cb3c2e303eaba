var searchData=
[
  ['undofile_0',['UndoFile',['../structkelm_1_1host_1_1UndoFile.html',1,'kelm::host']]],
  ['unfinisheddiskerror_1',['UnfinishedDiskError',['../classkelm_1_1host_1_1UnfinishedDiskError.html',1,'kelm::host']]],
  ['unfinishedextents_2',['UnfinishedExtents',['../classkelm_1_1host_1_1UnfinishedExtents.html',1,'kelm::host']]],
  ['unflushedgrains_3',['UnflushedGrains',['../classkelm_1_1host_1_1UnflushedGrains.html',1,'kelm::host']]],
  ['unpreparer_4',['Unpreparer',['../classkelm_1_1host_1_1Unpreparer.html',1,'kelm::host']]],
  ['usage_5',['Usage',['../structkelm_1_1CVMDKGrainTable_1_1Usage.html',1,'kelm::CVMDKGrainTable']]]
];
