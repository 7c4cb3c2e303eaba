var searchData=
[
  ['expectedextent_0',['ExpectedExtent',['../structkelm_1_1host_1_1ExpectedExtent.html',1,'kelm::host']]],
  ['extentfiles_1',['ExtentFiles',['../classkelm_1_1host_1_1ExtentFiles.html',1,'kelm::host']]],
  ['extentfindings_2',['ExtentFindings',['../classkelm_1_1host_1_1ExtentFindings.html',1,'kelm::host']]],
  ['extentgrains_3',['ExtentGrains',['../classkelm_1_1host_1_1ExtentGrains.html',1,'kelm::host']]],
  ['extentreader_4',['ExtentReader',['../classkelm_1_1host_1_1ExtentReader.html',1,'kelm::host']]],
  ['extentrepair_5',['ExtentRepair',['../structkelm_1_1host_1_1ExtentRepair.html',1,'kelm::host']]],
  ['extentroom_6',['ExtentRoom',['../classkelm_1_1host_1_1ExtentRoom.html',1,'kelm::host']]],
  ['extentshape_7',['ExtentShape',['../structkelm_1_1host_1_1ExtentShape.html',1,'kelm::host']]],
  ['extenttocompact_8',['ExtentToCompact',['../structkelm_1_1host_1_1ExtentToCompact.html',1,'kelm::host']]]
];
