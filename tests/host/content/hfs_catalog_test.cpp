// HFS+ volumes, whose labels lie anywhere in them.

#include "host/content/hfs_catalog.h"

#include <optional>
#include <random>
#include <string>

#include <gtest/gtest.h>

#include "host/content/file_system_probe.h"
#include "tests/host/content/bytes_in_memory.h"

namespace content_test {
namespace hfs_catalog_test {
namespace {

using kelm::host::FileSystem;
using kelm::host::HFSCatalog;
using kelm::host::HFSNode;
using kelm::host::probeFileSystem;
using test_support::Bytes;

constexpr std::size_t kVolumeBytes = std::size_t{24} << 20;
constexpr std::size_t kBlockBytes = 4096;
constexpr std::size_t kNodeBytes = 8192;
constexpr std::size_t kHeaderAt = 1024;
constexpr std::size_t kCatalogAt = std::size_t{10} << 20;

/// The second part of the catalog has its nodes 2 and 3, and the latter is the first leaf.
constexpr std::size_t kSecondPartAt = std::size_t{15} << 20;
constexpr std::size_t kLeafAt = kSecondPartAt + kNodeBytes;

void put(Bytes& bytes, std::size_t at, std::size_t size, unsigned long long number) {
    for (std::size_t i = size; i-- > 0; number >>= 8)
        bytes.at(at + i) = static_cast<unsigned char>(number);
}

Bytes makeVolume(std::u16string const& label) {
    Bytes volume(kVolumeBytes);
    put(volume, kHeaderAt, 2, 0x482B);
    put(volume, kHeaderAt + 2, 2, 4);
    put(volume, kHeaderAt + 40, 4, kBlockBytes);
    put(volume, kHeaderAt + 44, 4, kVolumeBytes / kBlockBytes);
    put(volume, kHeaderAt + 288, 4, kCatalogAt / kBlockBytes);
    put(volume, kHeaderAt + 292, 4, 4);
    put(volume, kHeaderAt + 296, 4, kSecondPartAt / kBlockBytes);
    put(volume, kHeaderAt + 300, 4, 4);
    // The header of the tree: a leaf with one record, which is node 3.
    put(volume, kCatalogAt + 8, 1, 1);
    put(volume, kCatalogAt + 20, 4, 1);
    put(volume, kCatalogAt + 24, 4, 3);
    put(volume, kCatalogAt + 32, 2, kNodeBytes);
    // The leaf: a key of the root folder, which lies in folder 1.
    put(volume, kLeafAt + 8, 1, 0xFF);
    put(volume, kLeafAt + 10, 2, 1);
    put(volume, kLeafAt + 14, 2, 6 + 2 * label.size());
    put(volume, kLeafAt + 16, 4, 1);
    put(volume, kLeafAt + 20, 2, label.size());
    for (std::size_t i = 0; i < label.size(); ++i)
        put(volume, kLeafAt + 22 + 2 * i, 2, label[i]);
    return volume;
}

std::string labelOf(Bytes const& volume) {
    BytesInMemory bytes(volume);
    std::optional<FileSystem> const found = probeFileSystem(bytes, 0, bytes.getSizeBytes());
    EXPECT_LE(bytes.readBytes, 28 << 20);
    return found ? found->label : "";
}

class HFSLabel : public testing::Test {
protected:
    void SetUp() override {
        if (!kelm::host::canProbeFileSystems())
            GTEST_SKIP() << "This build has no libblkid.";
    }
};

TEST_F(HFSLabel, IsTheNameOfTheRootFolder) {
    Bytes const volume = makeVolume(u"M\u00E4c disk");
    BytesInMemory bytes(volume);
    std::optional<FileSystem> const found = probeFileSystem(bytes, 0, bytes.getSizeBytes());
    ASSERT_TRUE(found);
    EXPECT_EQ("hfsplus", found->type);
    EXPECT_EQ("M\u00E4c disk", found->label);
    EXPECT_LE(bytes.readBytes, 11 << 20);
}

TEST_F(HFSLabel, IsEmptyWhereItsPlaceIsDamaged) {
    struct Damage {
        std::size_t at;
        std::size_t size;
        unsigned long long number;
    };
    for (Damage const& damage : {Damage{kHeaderAt + 40, 4, 0},
                                 {kHeaderAt + 40, 4, 4097},
                                 {kHeaderAt + 40, 4, 0x80000000},
                                 {kHeaderAt + 40, 4, 0xFFFFFFFF},
                                 {kHeaderAt + 288, 4, 0},
                                 {kHeaderAt + 288, 4, 0xFFFFFFFF},
                                 {kHeaderAt + 292, 4, 0},
                                 {kHeaderAt + 292, 4, 0xFFFFFFFF},
                                 {kHeaderAt + 296, 4, kVolumeBytes / kBlockBytes - 1},
                                 {kHeaderAt + 296, 4, 0xFFFFFFFF},
                                 {kHeaderAt + 300, 4, 3},
                                 {kCatalogAt + 8, 1, 0},
                                 {kCatalogAt + 24, 4, 0},
                                 {kCatalogAt + 24, 4, 4},
                                 {kCatalogAt + 24, 4, 0xFFFFFFFF},
                                 {kCatalogAt + 32, 2, 0},
                                 {kCatalogAt + 32, 2, 8193},
                                 {kCatalogAt + 32, 2, 0xFFFF},
                                 {kLeafAt + 8, 1, 0},
                                 {kLeafAt + 10, 2, 0},
                                 {kLeafAt + 16, 4, 2},
                                 {kLeafAt + 20, 2, 256}}) {
        Bytes volume = makeVolume(u"label");
        put(volume, damage.at, damage.size, damage.number);
        EXPECT_EQ("", labelOf(volume)) << damage.at << " " << damage.number;
    }
}

TEST_F(HFSLabel, IsLookedForInDamageOfEveryKind) {
    constexpr unsigned int kSeed = 7;
    std::mt19937 random(kSeed);
    Bytes const sound = makeVolume(u"label");
    for (int round = 0; round < 100; ++round) {
        Bytes volume = sound;
        for (int i = 0; i < 8; ++i) {
            std::size_t const at = i % 2 == 0 ? kHeaderAt + 40 + random() % 4 * 64 : kCatalogAt;
            volume[at + random() % 64] = static_cast<unsigned char>(random());
        }
        volume.resize(random() % 2 == 0 ? kVolumeBytes : kCatalogAt + random() % kVolumeBytes / 2);
        // Reading outside of the volume would throw.
        EXPECT_NO_THROW(labelOf(volume)) << round;
    }
}

TEST(HFSCatalogPlaces, AreThoseOfItsParts) {
    HFSCatalog catalog;
    catalog.blockBytes = 512;
    catalog.extents[0] = {100, 2};
    catalog.extents[1] = {7, 1};
    EXPECT_EQ(std::optional<__int64>(51200), catalog.findPlace(0, 1024));
    EXPECT_EQ(std::optional<__int64>(51712), catalog.findPlace(512, 512));
    EXPECT_EQ(std::optional<__int64>(3584), catalog.findPlace(1024, 512));
    EXPECT_EQ(std::nullopt, catalog.findPlace(512, 1024));
    EXPECT_EQ(std::nullopt, catalog.findPlace(1536, 1));
    EXPECT_EQ(std::nullopt, HFSCatalog().findPlace(0, 1));
}

TEST(HFSCatalogPlaces, OfTheLargestNumbersAreNumbers) {
    Bytes header(512);
    put(header, 0, 2, 0x4858);
    put(header, 40, 4, 1 << 25);
    for (std::size_t at = 288; at < 352; at += 4)
        put(header, at, 4, 0xFFFFFFFF);
    std::optional<HFSCatalog> const catalog = kelm::host::readHFSCatalog(header.data());
    ASSERT_TRUE(catalog);
    constexpr __int64 kPartBytes = 0xFFFFFFFFLL << 25;
    EXPECT_EQ(std::optional<__int64>(kPartBytes), catalog->findPlace(0, 512));
    EXPECT_EQ(std::optional<__int64>(kPartBytes + 5), catalog->findPlace(kPartBytes * 7 + 5, 512));
    EXPECT_EQ(std::nullopt, catalog->findPlace(kPartBytes * 8, 512));
    put(header, 0, 2, 0x4244);
    EXPECT_FALSE(kelm::host::readHFSCatalog(header.data()));
    Bytes node(512);
    put(node, 8, 1, 1);
    put(node, 24, 4, 0xFFFFFFFF);
    put(node, 32, 2, 32768);
    std::optional<HFSNode> const leaf = kelm::host::readFirstLeaf(node.data());
    ASSERT_TRUE(leaf);
    EXPECT_EQ(0xFFFFFFFFLL * 32768, leaf->offsetBytes);
    EXPECT_EQ(32768, leaf->sizeBytes);
}

} // namespace
} // namespace hfs_catalog_test
} // namespace content_test
