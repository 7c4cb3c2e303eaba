var searchData=
[
  ['hasdigest_0',['hasDigest',['../structkelm_1_1host_1_1GrainItem.html#acb949998b1d3fb124488188790ce6e73',1,'kelm::host::GrainItem']]],
  ['header_1',['header',['../structkelm_1_1host_1_1ExtentShape.html#a8b35113ff8366d59ef1dca275d0acd31',1,'kelm::host::ExtentShape']]],
  ['held_2',['held',['../structkelm_1_1host_1_1GrainCounts.html#ad1348675edb713fe771c52df11bb6e7f',1,'kelm::host::GrainCounts']]],
  ['heldgraincount_3',['heldGrainCount',['../structkelm_1_1host_1_1CheckResult.html#a945cd8292354847918df8a6a9eaa8484',1,'kelm::host::CheckResult']]],
  ['holdsdescriptor_4',['holdsDescriptor',['../structkelm_1_1host_1_1ExpectedExtent.html#aeb275e5a2f4bc707c05d356af8fb6516',1,'kelm::host::ExpectedExtent']]],
  ['host_5',['host',['../structkelm_1_1host_1_1BackupDisk.html#a171dcec576cf830400f51f8cd8d798d7',1,'kelm::host::BackupDisk::host()'],['../structkelm_1_1host_1_1RetentionItem.html#aa9291642a29eab82ed6d7ba641e29b7e',1,'kelm::host::RetentionItem::host()'],['../structkelm_1_1host_1_1NewDisk.html#a32031f175c5a1b9d10a30cfd2923c915',1,'kelm::host::NewDisk::host()']]],
  ['hourly_6',['hourly',['../structkelm_1_1host_1_1RetentionRules.html#a335354deb3e7916bb6365627c392439b',1,'kelm::host::RetentionRules']]]
];
