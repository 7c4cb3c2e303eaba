var searchData=
[
  ['graincount_0',['grainCount',['../structkelm_1_1host_1_1ExtentShape.html#abc7d2f42394bee4baeb180695fd06d99',1,'kelm::host::ExtentShape::grainCount()'],['../structkelm_1_1host_1_1DigestHeader.html#ac2352b255fff2fea23a8f25b866e3bd2',1,'kelm::host::DigestHeader::grainCount()']]],
  ['grainindex_1',['grainIndex',['../structkelm_1_1host_1_1GrainItem.html#a4aa8e01587e9a98de3500639d1030df6',1,'kelm::host::GrainItem']]],
  ['grainkey_2',['grainKey',['../structkelm_1_1host_1_1DigestKeys.html#a38ffc4f1c42481f5e73713f683e757bb',1,'kelm::host::DigestKeys']]],
  ['grains_3',['grains',['../structkelm_1_1CVMDKGrainTable_1_1Usage.html#aa7d460f5f037a0aed7b4e9a9ff663962',1,'kelm::CVMDKGrainTable::Usage']]],
  ['grainsizebytes_4',['grainSizeBytes',['../structkelm_1_1host_1_1DigestHeader.html#af35ae673754d7c8d06ac9a4c65d453e3',1,'kelm::host::DigestHeader::grainSizeBytes()'],['../structkelm_1_1host_1_1DiskExtent.html#ae41794cdd1da2966e417580213ab5870',1,'kelm::host::DiskExtent::grainSizeBytes()'],['../structkelm_1_1host_1_1ExtentRoom_1_1GrainRoom.html#a14c6d3083ea6c42e18c2c7dc80d2e4b3',1,'kelm::host::ExtentRoom::GrainRoom::grainSizeBytes()']]],
  ['grainsizesectors_5',['grainSizeSectors',['../structkelm_1_1host_1_1ExtentShape.html#aba165c2cfb38e811ef7525e57d8ba57f',1,'kelm::host::ExtentShape::grainSizeSectors()'],['../structkelm_1_1host_1_1RegularExtent.html#a118bbe9d4162db9389069b1c14aeedeb',1,'kelm::host::RegularExtent::grainSizeSectors()']]]
];
