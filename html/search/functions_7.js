var searchData=
[
  ['hasfree_0',['hasFree',['../classkelm_1_1host_1_1OrderedWorkers.html#aa049162a5738f18624b4553974ddc59f',1,'kelm::host::OrderedWorkers']]],
  ['hash_1',['hash',['../classkelm_1_1host_1_1GrainHasher.html#ac2fb19256f0732ec4b181db2b7cc4c74',1,'kelm::host::GrainHasher::hash()'],['../classkelm_1_1host_1_1DigestFileHasher.html#a8054b8608a22161044fa076c19871e31',1,'kelm::host::DigestFileHasher::hash()'],['../classkelm_1_1host_1_1DigestHashers.html#acff555737a7662e2db4b4181fff2c182',1,'kelm::host::DigestHashers::hash()']]],
  ['hasleft_2',['hasLeft',['../structkelm_1_1host_1_1RepairReport.html#aaee8dcfd3deadecea8ac8050c3d0922e',1,'kelm::host::RepairReport']]],
  ['hasmended_3',['hasMended',['../structkelm_1_1host_1_1RepairReport.html#ae6e0b3832084ae7483281d2bf033b33e',1,'kelm::host::RepairReport']]],
  ['hasparent_4',['hasParent',['../classkelm_1_1host_1_1SafeDisk.html#a5753c76e8ce11163efe7403acb711dc4',1,'kelm::host::SafeDisk']]],
  ['hasredundant_5',['hasRedundant',['../classkelm_1_1host_1_1TableDirectories.html#a2ecc0480a0ebaa246ded87bd19d112ea',1,'kelm::host::TableDirectories']]],
  ['hasslotsizes_6',['hasSlotSizes',['../classkelm_1_1host_1_1TableDirectories.html#a9211b0691839ee49fc989247eb257c25',1,'kelm::host::TableDirectories::hasSlotSizes()'],['../classkelm_1_1host_1_1GrainTables.html#a683b461d9233df484e6fe5ab2dd17c8c',1,'kelm::host::GrainTables::hasSlotSizes()']]],
  ['hasunflushedchanges_7',['hasUnflushedChanges',['../classkelm_1_1CVMDKGrainTable.html#a82fd0035780b8f82b8e88ba3b20ec597',1,'kelm::CVMDKGrainTable']]],
  ['hasunflushedwrites_8',['hasUnflushedWrites',['../classkelm_1_1host_1_1DiskWriting.html#abcf48b3a60892a2c28cc760a5ebabae5',1,'kelm::host::DiskWriting']]],
  ['hasvalue_9',['hasValue',['../classkelm_1_1CVMDKDescriptor.html#aeb8e1b1936f646ca60202e9d4eda8e97',1,'kelm::CVMDKDescriptor']]],
  ['havefile_10',['haveFile',['../classkelm_1_1host_1_1DiskRelations.html#ac7a8ff626adc35b1183008688ef4c7d3',1,'kelm::host::DiskRelations']]],
  ['headercheck_11',['HeaderCheck',['../classkelm_1_1host_1_1HeaderCheck.html#a0814dc182ea0ee0c436d2c83a86cf451',1,'kelm::host::HeaderCheck']]],
  ['headeroverlay_12',['HeaderOverlay',['../classkelm_1_1host_1_1HeaderOverlay.html#a52b8a9cf23e17e5ae5aba72f35cc8f14',1,'kelm::host::HeaderOverlay']]],
  ['hide_13',['hide',['../classkelm_1_1host_1_1ProgressBar.html#acb8098b44615845e06d59a6b1b0b6d0f',1,'kelm::host::ProgressBar']]],
  ['holdgrain_14',['holdGrain',['../classkelm_1_1host_1_1ParentIndependence.html#a3a0016d9aad263f464090a0508bcfe65',1,'kelm::host::ParentIndependence::holdGrain()'],['../classkelm_1_1host_1_1SafeDisk.html#a701021e6c0af31b9c04896f05d3ca227',1,'kelm::host::SafeDisk::holdGrain()']]]
];
