var searchData=
[
  ['cancel_0',['cancel',['../structkelm_1_1host_1_1RepairOptions.html#a08abaac17343c507a793c012b0d58d1e',1,'kelm::host::RepairOptions::cancel()'],['../structkelm_1_1host_1_1WorkOptions.html#a94d29f01254ac9beec12efff7203158d',1,'kelm::host::WorkOptions::cancel()'],['../structkelm_1_1host_1_1SalvageOptions.html#aa8cd0837dd8a5c5ffb14dc50d814483a',1,'kelm::host::SalvageOptions::cancel()']]],
  ['children_1',['children',['../structkelm_1_1host_1_1DiskDropResult.html#a63cce495348c9d2be9213e1ea206f427',1,'kelm::host::DiskDropResult::children()'],['../structkelm_1_1host_1_1DiskMoveResult.html#a360b4fb21ebc36bea98b238cd9b3ec6e',1,'kelm::host::DiskMoveResult::children()']]],
  ['cipher_2',['cipher',['../structkelm_1_1host_1_1DiskKey.html#a55a3f5906aac5fc894eb3a41bd08727a',1,'kelm::host::DiskKey']]],
  ['compressed_3',['compressed',['../structkelm_1_1host_1_1ExtentShape.html#adccc728addc64c8a0af91bd1df5bb7e6',1,'kelm::host::ExtentShape::compressed()'],['../structkelm_1_1host_1_1NewDisk.html#aba6da7f3d7a9d1dcea17c5217c83d268',1,'kelm::host::NewDisk::compressed()']]],
  ['compressionlevel_4',['compressionLevel',['../structkelm_1_1host_1_1NewDisk.html#ae1721de9ffc319691aa3752881f09942',1,'kelm::host::NewDisk']]],
  ['contentid_5',['contentID',['../structkelm_1_1host_1_1DigestHeader.html#a71989859304dd74929c7b8f6c2fed5ff',1,'kelm::host::DigestHeader']]],
  ['createextentfilesondemand_6',['createExtentFilesOnDemand',['../structkelm_1_1host_1_1NewDisk.html#a8cf02e834a09578636898f3f60d54dab',1,'kelm::host::NewDisk']]]
];
