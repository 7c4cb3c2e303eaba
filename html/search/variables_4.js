var searchData=
[
  ['endbytes_0',['endBytes',['../structkelm_1_1host_1_1ByteRange.html#a947ec44a69b65cc5295e066a4da1789f',1,'kelm::host::ByteRange::endBytes()'],['../structkelm_1_1host_1_1DiskExtent.html#a76d738859ed80cd9be4d78d02ba77a23',1,'kelm::host::DiskExtent::endBytes()'],['../structkelm_1_1host_1_1FileGrain.html#a2a32ae47872a20b58c12cf35c4c694cd',1,'kelm::host::FileGrain::endBytes()'],['../structkelm_1_1host_1_1GrainStretch.html#a17b2f2e328b09e78c94815181d43e64e',1,'kelm::host::GrainStretch::endBytes()'],['../structkelm_1_1host_1_1ImageRange.html#a406ebabb2a1d0bc0e22570c926b28b7d',1,'kelm::host::ImageRange::endBytes()'],['../structkelm_1_1host_1_1DamagedStretch.html#a21a3d763293c88a262d479c172d2c025',1,'kelm::host::DamagedStretch::endBytes()']]],
  ['error_1',['error',['../structyx_1_1LogEntry.html#a53fcdfcb426a7c68ed4fd7c28dbb962e',1,'yx::LogEntry']]],
  ['exists_2',['exists',['../structkelm_1_1host_1_1FileUse.html#a05f0791115d86cc2d576be4a160d0dbf',1,'kelm::host::FileUse']]],
  ['expected_3',['expected',['../structkelm_1_1host_1_1RepairedExtent.html#a231a04ca3a38b5ba89b53cd67d3fff94',1,'kelm::host::RepairedExtent']]],
  ['extent_4',['extent',['../structkelm_1_1host_1_1ExtentShape.html#a860d779a9815f61ca14062c64a19518a',1,'kelm::host::ExtentShape::extent()'],['../structkelm_1_1host_1_1DamagedTablePlace.html#a977a2f4a56b5327dcf015e305df0ec7f',1,'kelm::host::DamagedTablePlace::extent()']]],
  ['extentfiles_5',['extentFiles',['../structkelm_1_1host_1_1DiskParts.html#aa4b328145ff895aa98b4d9fa7132ccd4',1,'kelm::host::DiskParts']]],
  ['extents_6',['extents',['../structkelm_1_1host_1_1ChainMember.html#a70430c27f7bfea36a28b148a2e9cea57',1,'kelm::host::ChainMember']]]
];
