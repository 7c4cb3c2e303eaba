#include "host/disk/slot_repair.h"

#include <map>

#include <gtest/gtest.h>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/format/constants.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/internal/grain_record.h"
#include "kelm/metadata/grain_directory.h"
#include "tests/support/temp_directory.h"
#include "yx/data_in_stream.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace {

using kelm::kSectorSizeBytes;

constexpr __int64 kGrainCount = 2000;
constexpr int kGrainSizeSectors = 128;

/// One stretch of the file that is looked at in one go, in sectors.
constexpr __int64 kStretchSectors = 1LL << 28;

/// A compressed extent file with holes, so that it can be longer than a stretch, whose grains are
/// nothing but the headers of their records.
class SlotRepairTest : public testing::Test {
protected:
    struct Slot {
        __int64 posSectors;
        __int64 sizeSectors;

        bool operator==(Slot const&) const = default;
        friend std::ostream& operator<<(std::ostream& out, Slot const& slot) {
            return out << slot.sizeSectors << " sectors at " << slot.posSectors;
        }
    };
    using Slots = std::map<__int64, Slot>;

    explicit SlotRepairTest(bool compressed = true) {
        yx::TBuffer<unsigned char> zeros(kGrainSizeSectors * kSectorSizeBytes, -1);
        yx::initMemory(zeros.getData(), 0, static_cast<std::size_t>(zeros.getUsed()));
        kelm::createEmptyVMDKSparseExtentFile(m_files.get(), m_uri, compressed, kGrainCount,
                                              kGrainSizeSectors, zeros, nullptr, 0, {});
        m_stream = kelm::openVMDKFileStream(m_files.get(), m_uri, yx::IIOStream::ReadWrite);
        yx::CDataInStream in(m_stream.get());
        m_header.load(in);
    }

    /// Makes the file that long, without a trail.
    void setFileSectors(__int64 sectors) { m_stream->setLength(sectors * kSectorSizeBytes); }

    void put(Slots const& slots) {
        yx::P<kelm::CVMDKGrainDirectory> const directory = openDirectory();
        for (auto const& [grain, slot] : slots)
            directory->setGrainInfo(grain, slot.posSectors, slot.sizeSectors);
        directory->flushChangesToStream();
    }

    /// Writes the header of the record of a grain that takes so many sectors.
    void putRecord(__int64 grain, __int64 posSectors, __int64 sizeSectors) {
        unsigned char record[kelm::kGrainRecordHeaderSizeBytes];
        kelm::storeGrainRecordLBA(record,
                                  static_cast<unsigned long long>(grain * kGrainSizeSectors));
        kelm::storeGrainRecordCompressedSize(
            record, static_cast<unsigned int>(sizeSectors * kSectorSizeBytes -
                                              kelm::kGrainRecordHeaderSizeBytes));
        m_stream->seek(posSectors * kSectorSizeBytes);
        m_stream->write(record, sizeof record, nullptr);
    }

    __int64 repair() { return kelm::host::repairSlots(*m_stream, {}); }

    Slots read() {
        yx::P<kelm::CVMDKGrainDirectory> const directory = openDirectory();
        Slots slots;
        for (__int64 grain = 0; grain < kGrainCount; ++grain) {
            Slot slot{0, 0};
            directory->getGrainInfo(grain, slot.posSectors, slot.sizeSectors);
            if (slot.posSectors != 0)
                slots[grain] = slot;
        }
        return slots;
    }

private:
    yx::P<kelm::CVMDKGrainDirectory> openDirectory() {
        return yx::makeObject<kelm::CVMDKGrainDirectory>(
            m_stream.get(), yx::IIOStream::ReadWrite, m_header,
            yx::makeObject<kelm::CVMDKGrainTableCache>().get());
    }

    TempDirectory m_folder;
    yx::P<yx::CNativeFileSystem> m_files = yx::makeObject<yx::CNativeFileSystem>();
    yx::CURI m_uri = m_folder.uri("extent.vmdk");
    yx::P<yx::IIOStream> m_stream;
    kelm::CVMDKSparseExtentHeader m_header;
};

/// The same without compression, and so without tables of slot sizes.
class PlainSlotRepairTest : public SlotRepairTest {
protected:
    PlainSlotRepairTest() : SlotRepairTest(false) {}
};

TEST_F(PlainSlotRepairTest, PlainGrainsHaveNothingToRepair) {
    setFileSectors(10000);
    Slots const slots{{0, {9950, kGrainSizeSectors}}, {1, {2000, kGrainSizeSectors}}};
    put(slots);
    putRecord(0, 9950, 7);
    EXPECT_EQ(0, repair());
    EXPECT_EQ(slots, read());
}

TEST_F(SlotRepairTest, GrainsInTheirOrderAreLeftAlone) {
    setFileSectors(10000);
    Slots const slots{{0, {1000, 10}}, {1, {1010, 20}}, {900, {2000, 8000}}};
    put(slots);
    EXPECT_EQ(0, repair());
    EXPECT_EQ(slots, read());
}

TEST_F(SlotRepairTest, GrainsInDisorderThatDoNotOverlapAreLeftAlone) {
    setFileSectors(10000);
    Slots const slots{{0, {2000, 8000}}, {1, {1010, 20}}, {900, {1000, 10}}};
    put(slots);
    EXPECT_EQ(0, repair());
    EXPECT_EQ(slots, read());
}

TEST_F(SlotRepairTest, SlotEndsWhereTheNextBeginsWhicheverGrainThatIs) {
    setFileSectors(10000);
    put({{0, {2000, 9000}}, {1, {1010, 991}}, {900, {1000, 11}}});
    putRecord(0, 2000, 7);
    putRecord(1, 1010, 990);
    putRecord(900, 1000, 1);
    EXPECT_EQ(3, repair());
    EXPECT_EQ((Slots{{0, {2000, 8000}}, {1, {1010, 990}}, {900, {1000, 10}}}), read());
}

TEST_F(SlotRepairTest, GrainWithoutASlotGetsOneOfItsRecordsSize) {
    setFileSectors(10000);
    // Tables keep no more than 16 bits of a size.
    put({{5, {1000, 65536}}, {6, {1040, 10}}});
    putRecord(5, 1000, 33);
    EXPECT_EQ(1, repair());
    EXPECT_EQ((Slots{{5, {1000, 33}}, {6, {1040, 10}}}), read());
}

TEST_F(SlotRepairTest, GrainWhoseRecordDoesNotFitStaysAsItIs) {
    setFileSectors(10000);
    Slots const slots{{3, {1000, 50}}, {4, {1040, 10}}};
    put(slots);
    putRecord(3, 1000, 41);
    EXPECT_EQ(0, repair());
    EXPECT_EQ(slots, read());
}

TEST_F(SlotRepairTest, OfTwoGrainsInOnePlaceTheOneThatItsRecordNamesIsRepaired) {
    setFileSectors(10000);
    put({{3, {1000, 65536}}, {4, {1000, 65536}}});
    putRecord(4, 1000, 5);
    EXPECT_EQ(1, repair());
    EXPECT_EQ((Slots{{3, {1000, 0}}, {4, {1000, 5}}}), read());
}

TEST_F(SlotRepairTest, FilesLongerThanAStretchAreRepairedThroughout) {
    setFileSectors(2 * kStretchSectors + 10000);
    Slots slots{{0, {2 * kStretchSectors + 500, 65535}},
                {1, {kStretchSectors + 100, 20}},
                {2, {kStretchSectors - 50, 400}},
                {3, {kStretchSectors - 60, 11}},
                {1999, {1000, 65535}}};
    put(slots);
    for (auto const& [grain, slot] : slots)
        putRecord(grain, slot.posSectors, 9);
    EXPECT_EQ(3, repair());
    slots[0].sizeSectors = 9500;
    slots[2].sizeSectors = 150;
    slots[3].sizeSectors = 10;
    EXPECT_EQ(slots, read());
    EXPECT_EQ(0, repair());
}

} // namespace
} // namespace test_support
