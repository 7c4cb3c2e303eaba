var searchData=
[
  ['newdisk_0',['NewDisk',['../structkelm_1_1host_1_1NewDisk.html',1,'kelm::host']]],
  ['newdiskplace_1',['NewDiskPlace',['../structkelm_1_1host_1_1ParentsRoom_1_1NewDiskPlace.html',1,'kelm::host::ParentsRoom']]]
];
