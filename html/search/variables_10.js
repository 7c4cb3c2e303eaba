var searchData=
[
  ['read_0',['read',['../structkelm_1_1host_1_1GrainCounts.html#a28e7ed15e4f58eb76f03404f55c27248',1,'kelm::host::GrainCounts']]],
  ['readgraincount_1',['readGrainCount',['../structkelm_1_1host_1_1CheckResult.html#a66f6113111ea75ebf0f87d8277fdb7f6',1,'kelm::host::CheckResult']]],
  ['reason_2',['reason',['../structkelm_1_1host_1_1ReadGrain.html#ae00ce5c696bca9f4377935b382bb9996',1,'kelm::host::ReadGrain::reason()'],['../structkelm_1_1host_1_1DamagedStretch.html#acb46b3d1a029bd4e29934edc752f9583',1,'kelm::host::DamagedStretch::reason()']]],
  ['reasons_3',['reasons',['../structkelm_1_1host_1_1PruneVerdict.html#a821f9cc116d573c7b03fdc8f612034c9',1,'kelm::host::PruneVerdict']]],
  ['redundantdirectorysector_4',['redundantDirectorySector',['../structkelm_1_1host_1_1RegularPlaces.html#ad6706beae3ddbae40685e1765ae0b025',1,'kelm::host::RegularPlaces']]],
  ['redundanttable_5',['redundantTable',['../structkelm_1_1host_1_1TablePlaces.html#a40a2de7c12e03ea2b16212df9368f83e',1,'kelm::host::TablePlaces']]],
  ['redundanttablesector_6',['redundantTableSector',['../structkelm_1_1host_1_1RegularPlaces.html#a2462cd43316f9ed954a43194aa67d26c',1,'kelm::host::RegularPlaces']]],
  ['result_7',['result',['../structkelm_1_1host_1_1GrainItem.html#ab165442b39543b111deacd6c3d57ba3b',1,'kelm::host::GrainItem']]],
  ['resultisenciphered_8',['resultIsEnciphered',['../structkelm_1_1host_1_1GrainItem.html#a2dd8550bf995fb11f28ddeebe0877943',1,'kelm::host::GrainItem']]],
  ['resultisplain_9',['resultIsPlain',['../structkelm_1_1host_1_1GrainItem.html#ad20ab72d7877a4bd86621ab7030d4bb4',1,'kelm::host::GrainItem']]],
  ['rightbytes_10',['rightBytes',['../structkelm_1_1host_1_1Comparison.html#a85680a8eb86d6995b9d43072a7fcc542',1,'kelm::host::Comparison']]],
  ['rounds_11',['rounds',['../structkelm_1_1host_1_1KeyDerivationSettings.html#a8ea3fdd9747a3300a0e7b09321d65490',1,'kelm::host::KeyDerivationSettings']]],
  ['rules_12',['rules',['../structkelm_1_1host_1_1PruneOptions.html#ac3fcdf42a0da048c5a557333c08e62ae',1,'kelm::host::PruneOptions']]]
];
