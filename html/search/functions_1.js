var searchData=
[
  ['back_0',['back',['../classyx_1_1TList.html#a8551276f96fbb231f95e5e85ee45b80a',1,'yx::TList::back()'],['../classyx_1_1TList.html#ab5f681ad3d5dd32d726baf81537dbd94',1,'yx::TList::back() const']]],
  ['begin_1',['begin',['../classyx_1_1TArray.html#a35662c10aad04b004060ff651a5a6cfe',1,'yx::TArray::begin()'],['../classyx_1_1TArray.html#aa45771b46853ae37779445b0d058e768',1,'yx::TArray::begin() const'],['../classyx_1_1TList.html#a2b59812e6489f72ce02328a53f24c62f',1,'yx::TList::begin()'],['../classyx_1_1TList.html#ad27eb507b65b936b5e58d7588a16ccbf',1,'yx::TList::begin() const'],['../classyx_1_1TMap.html#a6c695b9c16b4924d1393ca1a76418041',1,'yx::TMap::begin()'],['../classyx_1_1TMap.html#a4d5a66fa388e08e37a83428a3ae97fa0',1,'yx::TMap::begin() const'],['../classkrym_1_1CHasher__SHA256.html#ad7c089991e1e8324a24a0b14b98bc2b7',1,'krym::CHasher_SHA256::begin()']]],
  ['beginearly_2',['beginEarly',['../classkelm_1_1host_1_1ImageWriter.html#ab0813c397e14ce74ef0ca11bf2bfae0d',1,'kelm::host::ImageWriter']]],
  ['beginioop_3',['beginIOOp',['../classkelm_1_1CVMDKDisk.html#a4930a6c754c643d4543ee360faa72615',1,'kelm::CVMDKDisk::beginIOOp()'],['../classkelm_1_1CVMDKSparseExtentFile.html#a21262c73cc0adbb5e0608eaf6786ae9c',1,'kelm::CVMDKSparseExtentFile::beginIOOp()']]],
  ['beginwritinganywhere_4',['beginWritingAnywhere',['../classkelm_1_1host_1_1RawTarget.html#a57362564f7219efb3c450a6017bc1bc6',1,'kelm::host::RawTarget']]],
  ['borrow_5',['borrow',['../classkelm_1_1host_1_1FileDescriptor.html#adcb8474e041e83c14812d1515166c116',1,'kelm::host::FileDescriptor']]],
  ['busywait_6',['BusyWait',['../classkelm_1_1host_1_1BusyWait.html#afc8046db2943e2fd247cde1e4528a3d8',1,'kelm::host::BusyWait::BusyWait()=default'],['../classkelm_1_1host_1_1BusyWait.html#aa7ceb6bf22203fac3f6b4196d7b12cf4',1,'kelm::host::BusyWait::BusyWait(std::chrono::milliseconds limit, CancelFlag const *cancel)']]]
];
