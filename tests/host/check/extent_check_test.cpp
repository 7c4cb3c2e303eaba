#include "host/check/extent_check.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/format/constants.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "kelm/graindata/internal/grain_record.h"
#include "kelm/metadata/grain_directory.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/slot_sizes.h"
#include "tests/support/temp_directory.h"
#include "yx/data_in_stream.h"
#include "yx/native_file_system.h"

using kelm::kSectorSizeBytes;
using kelm::host::ExtentCheck;
using kelm::host::KnownGrains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace test_support {
namespace {

constexpr __int64 kGrainCount = 600;
constexpr int kGrainSizeSectors = 128;

/// What is searched for overlaps at a time, in sectors.
constexpr __int64 kStretchSectors = 1LL << 28;

/// A compressed extent file with holes, so that it can be longer than a stretch, whose grains are
/// nothing but the headers of their records.
class ExtentCheckTest : public testing::Test {
protected:
    ExtentCheckTest() {
        yx::TBuffer<unsigned char> zeros(kGrainSizeSectors * kSectorSizeBytes, -1);
        yx::initMemory(zeros.getData(), 0, static_cast<std::size_t>(zeros.getUsed()));
        kelm::createEmptyVMDKSparseExtentFile(m_files.get(), m_uri, true, kGrainCount,
                                              kGrainSizeSectors, zeros, nullptr, 0, {});
    }

    struct Grain {
        __int64 index;
        __int64 posSectors;
        __int64 recordSectors;
    };

    void put(std::vector<Grain> const& grains, __int64 fileSectors) {
        yx::P<yx::IIOStream> const stream =
            kelm::openVMDKFileStream(m_files.get(), m_uri, yx::IIOStream::ReadWrite);
        kelm::CVMDKSparseExtentHeader header;
        yx::CDataInStream in(stream.get());
        header.load(in);
        auto const directory = yx::makeObject<kelm::CVMDKGrainDirectory>(
            stream.get(), yx::IIOStream::ReadWrite, header,
            yx::makeObject<kelm::CVMDKGrainTableCache>().get());
        stream->setLength(fileSectors * kSectorSizeBytes);
        for (Grain const& grain : grains) {
            directory->setGrainInfo(grain.index, grain.posSectors, grain.recordSectors);
            unsigned char record[kelm::kGrainRecordHeaderSizeBytes];
            kelm::storeGrainRecordLBA(
                record, static_cast<unsigned long long>(grain.index * kGrainSizeSectors));
            kelm::storeGrainRecordCompressedSize(
                record, static_cast<unsigned int>(grain.recordSectors * kSectorSizeBytes -
                                                  kelm::kGrainRecordHeaderSizeBytes));
            stream->seek(grain.posSectors * kSectorSizeBytes);
            stream->write(record, sizeof record, nullptr);
        }
        directory->flushChangesToStream();
    }

    /// Calls `use` with a check, and returns what that has found by the end.
    std::vector<std::string> check(std::function<void(ExtentCheck&)> const& use) {
        std::vector<std::string> findings;
        kelm::host::DiskExtent extent;
        extent.endBytes = kGrainCount * kGrainSizeSectors * kSectorSizeBytes;
        extent.isCompressed = true;
        yx::P<yx::IIOStream> const stream =
            kelm::openVMDKFileStream(m_watched.get(), m_uri, yx::IIOStream::ReadOnly);
        KnownGrains known;
        ExtentCheck check(
            *stream, extent, nullptr,
            [&findings](std::string const& text) { findings.push_back(text); }, known);
        use(check);
        check.finish();
        return findings;
    }

    std::vector<std::string> check() {
        return check([](ExtentCheck&) {});
    }

    /// How often what lies at a sector was read.
    int countReadsOf(__int64 sector) const {
        int count = 0;
        for (RecordingFileSystem::Entry const& entry : m_watched->entries()) {
            FileOperation const& operation = entry.operation;
            count += operation.kind == FileOperation::Kind::Read &&
                     operation.position <= sector * kSectorSizeBytes &&
                     operation.position + operation.length > sector * kSectorSizeBytes;
        }
        return count;
    }

    TempDirectory m_folder;
    yx::P<yx::CNativeFileSystem> m_files = yx::makeObject<yx::CNativeFileSystem>();
    yx::P<RecordingFileSystem> m_watched = yx::makeObject<RecordingFileSystem>(m_files.get());
    yx::CURI m_uri = m_folder.uri("extent.vmdk");
};

TEST_F(ExtentCheckTest, FindsOverlapsInEachStretchOfALongFile) {
    constexpr __int64 kFar = 2 * kStretchSectors + 5000;
    put({{3, 4000, 9},
         {4, kStretchSectors - 4, 8},
         {5, kStretchSectors + 2, 8},
         {513, kFar, 20},
         {514, kFar + 19, 2}},
        kFar + 10000);
    EXPECT_THAT(
        check(),
        ElementsAre("grain 5 shares its place with something else, at sector 268435458 (bytes: "
                    "327680-393215)",
                    "grain 514 shares its place with something else, at sector 536875931 (bytes: "
                    "33685504-33751039)",
                    "the trail has no footer marker", "the footer is no copy of the header"));
}

TEST_F(ExtentCheckTest, ReadsTheRecordsOfALongFileOnce) {
    // Without slots, it is the record that tells how long it is. More than are kept at a time.
    std::vector<Grain> grains;
    for (__int64 index = 1; index <= 20; ++index)
        grains.push_back({index, index * 1000000, 9});
    put(grains, 2 * kStretchSectors + 10000);
    for (Grain const& grain : grains)
        setSlotSize(m_files.get(), m_uri, grain.index, 0);
    check();
    for (Grain const& grain : grains)
        EXPECT_EQ(1, countReadsOf(grain.posSectors)) << grain.index;
}

TEST_F(ExtentCheckTest, PieceByPieceItReadsNoFurtherThanIsAskedFor) {
    put({{3, 1000000, 9}, {599, 2000000, 20}}, 3000000);
    std::vector<std::string> const whole = check();
    m_watched->clear();
    EXPECT_EQ(whole, check([this](ExtentCheck& check) {
                  EXPECT_THAT(m_watched->lines({FileOperation::Kind::Read}), IsEmpty());
                  check.runTo(2);
                  EXPECT_EQ(0, countReadsOf(1000000));
                  check.runTo(598);
                  EXPECT_EQ(1, countReadsOf(1000000));
                  EXPECT_EQ(0, countReadsOf(2000000));
                  check.runTo(0);
                  check.runTo(599);
                  EXPECT_EQ(1, countReadsOf(2000000));
              }));
    EXPECT_EQ(whole, check([](ExtentCheck& check) {
                  for (__int64 const stop : {0, 3, 3, 512, 599, 700})
                      check.runTo(stop);
              }));
}

} // namespace
} // namespace test_support
