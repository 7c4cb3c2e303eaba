#include "host/digest/digest_keys.h"

#include "tests/host/digest/digest_fixture.h"

using kelm::host::Digest;
using kelm::host::DigestKeys;
using kelm::host::GrainHasher;

namespace test_support {
namespace digest_keys_test {
namespace {

using DigestKeysTest = DiskTest;

Bytes hash(DigestKeys const& keys, __int64 index, Bytes const& content, int wholeBytes) {
    return toBytes(GrainHasher(keys).hash(index, content.data(), static_cast<int>(content.size()),
                                          wholeBytes));
}

TEST_F(DigestKeysTest, PlainDigestIsThatOfTheContent) {
    Bytes const grain = pattern(kGrainBytes, 1);
    EXPECT_EQ(hash({}, 0, grain, kGrainBytes), sha256Of(grain));
    EXPECT_EQ(hash({}, 77, grain, kGrainBytes), sha256Of(grain));
}

TEST_F(DigestKeysTest, WhatAGrainLacksIsZeros) {
    Bytes const part = pattern(1000, 1);
    EXPECT_EQ(hash({}, 0, part, 65536), sha256Of(concat({part, zeros(65536 - 1000)})));
    EXPECT_EQ(hash({}, 0, {}, 5000), sha256Of(zeros(5000)));
}

TEST_F(DigestKeysTest, WhatLiesBehindTheDiskDoesNotCount) {
    Bytes const grain = pattern(kGrainBytes, 1);
    EXPECT_EQ(hash({}, 0, grain, 512), sha256Of(slice(grain, 0, 512)));
}

TEST_F(DigestKeysTest, KeyedDigestHasTheIndexBeforeTheContent) {
    Bytes const grain = pattern(kGrainBytes, 1);
    EXPECT_EQ(hash(knownKeys(), 0x1234, grain, kGrainBytes),
              hmacOf(Bytes(32, 'g'), concat({littleEndian(0x1234, 8), grain})));
}

TEST_F(DigestKeysTest, DiskWithoutAPasswordHasNoKeys) {
    yx::P<kelm::CVMDKDisk> const disk = create({});
    EXPECT_FALSE(disk->isEncrypted());
    EXPECT_FALSE(DigestKeys(*disk).isKeyed);
    yx::TCryptBuffer<unsigned char> key;
    EXPECT_TRUE(throwsError("VMDK is not encrypted", {{"mainFileURI", "mem:///disks/disk.vmdk"}},
                            [&] { disk->derivePurposeKey("anything", key); }));
}

TEST_F(DigestKeysTest, KeysComeFromTheKeyOfTheDisk) {
    { create({.password = "secret"}); }
    DigestKeys const keys(*open(yx::IIOStream::ReadOnly, "secret"));
    DigestKeys const again(*open(yx::IIOStream::ReadWrite, "secret"));
    EXPECT_TRUE(keys.isKeyed);
    EXPECT_EQ(keys.grainKey.getUsed(), 32);
    EXPECT_TRUE(sameBytes(keys.grainKey, again.grainKey));
    EXPECT_TRUE(sameBytes(keys.fileKey, again.fileKey));
    EXPECT_TRUE(sameBytes(keys.imageKey, again.imageKey));
    EXPECT_NE(toBytes(keys.grainKey), toBytes(keys.fileKey));
    EXPECT_NE(toBytes(keys.grainKey), toBytes(keys.imageKey));
    EXPECT_NE(toBytes(keys.fileKey), toBytes(keys.imageKey));
    { create({.password = "secret"}, "other.vmdk"); }
    DigestKeys const other(*open(yx::IIOStream::ReadOnly, "secret", "other.vmdk"));
    EXPECT_NE(toBytes(keys.grainKey), toBytes(other.grainKey));
}

/// Unwraps the disk's key with OpenSSL, as any software that knows the format does.
TEST_F(DigestKeysTest, AnybodyWhoHasTheKeyOfTheDiskCanMakeThem) {
    { create({.password = "secret"}); }
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadOnly, "secret");
    yx::P<kelm::CVMDKDescriptor> const descriptor = disk->getDescriptor();
    Bytes const salt = toBytes(descriptor->getYxEncryptionKeyDerivationSalt());
    Bytes derived(32);
    ASSERT_EQ(1, PKCS5_PBKDF2_HMAC_SHA1("secret", 6, salt.data(), static_cast<int>(salt.size()),
                                        10000, 32, derived.data()));
    Bytes const diskKey = decipherWithOpenSSL(toBytes(descriptor->getYxEncryptedEncryptionKey()),
                                              derived, toBytes(descriptor->getYxEncryptionIV()));
    DigestKeys const keys(*disk);
    EXPECT_EQ(toBytes(keys.grainKey),
              hmacOf(diskKey, concat({fromText("kelm digests: grains"), Bytes{1}})));
    EXPECT_EQ(toBytes(keys.fileKey),
              hmacOf(diskKey, concat({fromText("kelm digests: file"), Bytes{1}})));
    EXPECT_EQ(toBytes(keys.imageKey),
              hmacOf(diskKey, concat({fromText("kelm digests: image"), Bytes{1}})));
}

} // namespace
} // namespace digest_keys_test
} // namespace test_support
