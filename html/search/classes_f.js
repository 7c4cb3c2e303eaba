var searchData=
[
  ['safedisk_0',['SafeDisk',['../classkelm_1_1host_1_1SafeDisk.html',1,'kelm::host']]],
  ['salvageddisk_1',['SalvagedDisk',['../classkelm_1_1host_1_1SalvagedDisk.html',1,'kelm::host']]],
  ['salvagedtables_2',['SalvagedTables',['../classkelm_1_1host_1_1SalvagedTables.html',1,'kelm::host']]],
  ['salvageoptions_3',['SalvageOptions',['../structkelm_1_1host_1_1SalvageOptions.html',1,'kelm::host']]],
  ['sealedfilesystem_4',['SealedFileSystem',['../classkelm_1_1host_1_1SealedFileSystem.html',1,'kelm::host']]],
  ['sector_5',['Sector',['../structkelm_1_1host_1_1UndoFile_1_1Sector.html',1,'kelm::host::UndoFile']]],
  ['sectormap_6',['SectorMap',['../classkelm_1_1host_1_1SectorMap.html',1,'kelm::host']]],
  ['signalblock_7',['SignalBlock',['../classkelm_1_1host_1_1SignalBlock.html',1,'kelm::host']]],
  ['signalcancellation_8',['SignalCancellation',['../classkelm_1_1host_1_1SignalCancellation.html',1,'kelm::host']]],
  ['slotcheck_9',['SlotCheck',['../classkelm_1_1host_1_1SlotCheck.html',1,'kelm::host']]],
  ['slotfillingstream_10',['SlotFillingStream',['../classkelm_1_1host_1_1SlotFillingStream.html',1,'kelm::host']]],
  ['storedgrains_11',['StoredGrains',['../classkelm_1_1host_1_1StoredGrains.html',1,'kelm::host']]],
  ['storedview_12',['StoredView',['../classkelm_1_1host_1_1StoredView.html',1,'kelm::host']]],
  ['string_13',['String',['../classyx_1_1String.html',1,'yx']]],
  ['syncwatch_14',['SyncWatch',['../classkelm_1_1host_1_1SyncWatch.html',1,'kelm::host']]]
];
