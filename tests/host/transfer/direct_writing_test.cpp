#include "host/transfer/direct_writing.h"

#include <algorithm>
#include <random>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"
#include "tests/support/power_cut.h"

namespace test_support {
namespace direct_writing_test {
namespace {

using kelm::host::DirectWriting;
using Kind = FileOperation::Kind;

constexpr unsigned int kFirstSeed = 20311123;
constexpr int kSteps = 400;
constexpr int kTables = 64;
constexpr int kPieceBytes = 4096;

class DirectWritingTest : public HostTest {
protected:
    static void write(DirectWriting& writing, __int64 position, Bytes const& bytes) {
        writing.write(position, bytes.data(), static_cast<int>(bytes.size()));
    }

    static Bytes read(DirectWriting& writing, __int64 position, std::size_t count) {
        Bytes bytes(count);
        writing.read(position, bytes.data(), static_cast<int>(count));
        return bytes;
    }

    /// Makes a disk whose first grains are stored.
    Bytes putDisk(DiskKind const& kind, int grains) {
        Bytes const content = pattern(static_cast<std::size_t>(grains) * kGrainBytes, 5);
        writeTo(*createSafe(kind), 0, content);
        return content;
    }

    struct Range {
        __int64 positionBytes;
        __int64 bytes;
    };

    /// Mostly small, some of several grains, some up to the end of the disk.
    static Range drawRange(std::mt19937& random) {
        auto const below = [&random](__int64 limit) {
            return static_cast<__int64>(random() % static_cast<unsigned long long>(limit));
        };
        __int64 const sizes[] = {1, 512, kPieceBytes, kGrainBytes, 5 * kGrainBytes / 2};
        __int64 const bytes = 1 + below(sizes[below(std::size(sizes))]);
        __int64 const last = kSmallestDiskBytes - bytes;
        if (below(8) == 0)
            return {last, bytes};
        // Near each other, so that grains are met again.
        return {std::min(last, below(12) * 11 * kGrainBytes + below(2 * kGrainBytes)), bytes};
    }

    /// Any requests in any order, beside what they should make of the disk.
    void live(char const* password, Bytes& expected, unsigned int seed) {
        std::mt19937 random(seed);
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadWrite, password);
        DirectWriting writing(*disk, 1 + static_cast<int>(random() % kTables));
        for (int step = 0; step < kSteps; ++step) {
            Range const range = drawRange(random);
            auto const place = expected.begin() + range.positionBytes;
            auto const size = static_cast<std::size_t>(range.bytes);
            switch (random() % 8) {
            case 0:
                writing.flush();
                break;
            case 1:
                writing.writeZeros(range.positionBytes, range.bytes);
                std::fill_n(place, size, static_cast<unsigned char>(0));
                break;
            case 2:
            case 3:
                ASSERT_TRUE(
                    sameBytes(slice(expected, static_cast<std::size_t>(range.positionBytes), size),
                              read(writing, range.positionBytes, size)))
                    << "seed " << seed << ", step " << step;
                break;
            default:
                Bytes const bytes =
                    random() % 8 == 0 ? zeros(size) : pattern(size, seed + random() % 1000);
                write(writing, range.positionBytes, bytes);
                std::copy(bytes.begin(), bytes.end(), place);
            }
        }
        writing.flush();
    }
};

TEST_F(DirectWritingTest, IsTheUsualRoadForWhoeverReadsAndWrites) {
    for (unsigned int round = 0; round < modelRounds(); ++round) {
        for (DiskKind const& kind : allDiskKinds()) {
            unsigned int const seed = kFirstSeed + round;
            SCOPED_TRACE(testing::Message() << kind.name << ", seed " << seed);
            files = yx::makeObject<yx::CMemoryFileSystem>();
            Bytes expected = padded(putDisk(kind, 12), kSmallestDiskBytes);
            // The second time, most grains have their places.
            live(kind.password, expected, seed);
            live(kind.password, expected, seed + 1);
            EXPECT_TRUE(sameBytes(expected, contentAfterReopening("disk.vmdk", kind.password)));
            countStoredGrains("disk.vmdk", kind.password);
        }
    }
}

TEST_F(DirectWritingTest, OfAChildLeavesItsParentAlone) {
    for (char const* const name : {"plain", "splitOnDemand"}) {
        SCOPED_TRACE(name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        DiskKind const kind = kindNamed(name);
        Bytes const parent = pattern(static_cast<std::size_t>(kSmallestDiskBytes), 9);
        writeTo(*createSafe(kind, "parent.vmdk"), 0, parent);
        createSafe(kind, "disk.vmdk", "parent.vmdk");
        Bytes expected = parent;
        live("", expected, kFirstSeed);
        live("", expected, kFirstSeed + 1);
        EXPECT_TRUE(sameBytes(expected, contentAfterReopening()));
        EXPECT_TRUE(sameBytes(parent, contentAfterReopening("parent.vmdk")));
    }
}

TEST_F(DirectWritingTest, TouchesOnlyTheBytesAskedFor) {
    Bytes const content = putDisk(kindNamed("plain"), 8);
    auto const recording = yx::makeObject<RecordingFileSystem>(files.get());
    SafeDisk disk(recording.get(), uriOf("disk.vmdk"), kReadWrite, "");
    unsigned int const before = disk.getDisk().getDescriptor()->getContentID();
    DirectWriting writing(disk, kTables);
    write(writing, 2 * kGrainBytes + 512, pattern(kPieceBytes, 1));
    EXPECT_NE(before, disk.getDisk().getDescriptor()->getContentID());
    recording->clear();
    write(writing, 5 * kGrainBytes + 1024, pattern(kPieceBytes, 2));
    EXPECT_EQ(pattern(kPieceBytes, 2), read(writing, 5 * kGrainBytes + 1024, kPieceBytes));
    // Neighbours in the file at once.
    write(writing, 3 * kGrainBytes - 10, pattern(20, 3));
    ASSERT_EQ(3U, recording->count({Kind::Read, Kind::Write}));
    __int64 const lengths[] = {kPieceBytes, kPieceBytes, 20};
    std::size_t next = 0;
    for (RecordingFileSystem::Entry const& entry : recording->entries()) {
        if (entry.operation.kind == Kind::Read || entry.operation.kind == Kind::Write)
            EXPECT_EQ(lengths[next++], entry.operation.length);
    }
    // Zeros where there are some already change nothing.
    writing.writeZeros(5 * kGrainBytes, 512);
    recording->clear();
    writing.writeZeros(5 * kGrainBytes, 512);
    EXPECT_EQ(0U, recording->count({Kind::Write}));
    recording->clear();
    writing.flush();
    EXPECT_EQ(1U, recording->count({Kind::Flush}, "disk.vmdk"));
    writing.flush();
    EXPECT_EQ(1U, recording->count({Kind::Flush}, "disk.vmdk"));
}

TEST_F(DirectWritingTest, TakesWhatHasGotItsPlaceSinceTheLastFlush) {
    createSafe(kindNamed("plain"));
    auto const recording = yx::makeObject<RecordingFileSystem>(files.get());
    SafeDisk disk(recording.get(), uriOf("disk.vmdk"), kReadWrite, "");
    DirectWriting writing(disk, kTables);
    auto const countWhole = [&] {
        std::size_t count = 0;
        for (RecordingFileSystem::Entry const& entry : recording->entries()) {
            bool const isWhole = entry.operation.length >= kGrainBytes;
            count += entry.operation.kind == Kind::Write && isWhole ? 1 : 0;
        }
        return count;
    };
    for (int grain : {7, 8})
        write(writing, grain * kGrainBytes, pattern(kPieceBytes, 1));
    write(writing, 7 * kGrainBytes + 9000, pattern(kPieceBytes, 2));
    writing.flush();
    EXPECT_GT(countWhole(), 0U);
    recording->clear();
    write(writing, 7 * kGrainBytes + 20000, pattern(kPieceBytes, 3));
    write(writing, 8 * kGrainBytes + 20000, pattern(kPieceBytes, 4));
    EXPECT_EQ(0U, countWhole());
    EXPECT_EQ(pattern(kPieceBytes, 2), read(writing, 7 * kGrainBytes + 9000, kPieceBytes));
    writing.flush();
    Bytes const content = contentAfterReopening();
    EXPECT_EQ(pattern(kPieceBytes, 3), slice(content, 7 * kGrainBytes + 20000, kPieceBytes));
    EXPECT_EQ(pattern(kPieceBytes, 4), slice(content, 8 * kGrainBytes + 20000, kPieceBytes));
}

TEST_F(DirectWritingTest, RefusesInTheWordsOfTheDisk) {
    putDisk(kindNamed("plain"), 4);
    std::unique_ptr<SafeDisk> const disk = openSafe();
    DirectWriting writing(*disk, kTables);
    Bytes bytes(kPieceBytes);
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::NotAllowed, "Write exceeds VMDK disk size.",
                      {{"mainFileURI", uriOf("disk.vmdk").toString(true).toStdString()},
                       {"position", std::to_string(kSmallestDiskBytes - 1)},
                       {"bytesToWrite", std::to_string(kPieceBytes)}},
                      [&] { writing.write(kSmallestDiskBytes - 1, bytes.data(), kPieceBytes); }));
    EXPECT_THROW(writing.read(kSmallestDiskBytes - 1, bytes.data(), kPieceBytes), yx::CError);
    EXPECT_THROW(writing.writeZeros(kSmallestDiskBytes, 1), yx::CError);
}

TEST_F(DirectWritingTest, AFailedWriteIsToldAtOnceAndAFailedSyncByEveryFlush) {
    putDisk(kindNamed("plain"), 8);
    auto const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    SafeDisk disk(faulty.get(), uriOf("disk.vmdk"), kReadWrite, "");
    DirectWriting writing(disk, kTables);
    write(writing, 0, pattern(kPieceBytes, 1));
    writing.flush();
    faulty->add({.kinds = {Kind::Write}, .code = yx::CIOError::NoSpace});
    EXPECT_THROW(write(writing, 0, pattern(kPieceBytes, 2)), yx::CIOError);
    EXPECT_EQ(1, faulty->hits());
    write(writing, 0, pattern(kPieceBytes, 3));
    writing.flush();
    write(writing, 0, pattern(kPieceBytes, 4));
    faulty->add({.kinds = {Kind::Flush}});
    EXPECT_THROW(writing.flush(), yx::CIOError);
    EXPECT_EQ(2, faulty->hits());
    faulty->clear();
    write(writing, kGrainBytes, pattern(kPieceBytes, 5));
    EXPECT_THROW(writing.flush(), yx::CIOError);
    EXPECT_EQ(pattern(kPieceBytes, 5), read(writing, kGrainBytes, kPieceBytes));
}

/// Of each sector, a cut leaves what it had at the last flush or has got since.
class WrittenSectors {
public:
    explicit WrittenSectors(Bytes content) : m_flushed(std::move(content)) {}

    void write(__int64 position, Bytes const& bytes) { m_writes.emplace_back(position, bytes); }

    void flush() {
        for (auto const& [position, bytes] : m_writes)
            std::copy(bytes.begin(), bytes.end(), m_flushed.begin() + position);
        m_writes.clear();
    }

    testing::AssertionResult mayBe(Bytes const& content) const {
        constexpr std::size_t kSector = 512;
        for (std::size_t at = 0; at < content.size(); at += kSector) {
            Bytes const sector = slice(content, at, kSector);
            bool isThere = sector == slice(m_flushed, at, kSector);
            for (auto const& [position, bytes] : m_writes) {
                auto const start = static_cast<std::size_t>(position);
                isThere = isThere || (at >= start && at < start + bytes.size() &&
                                      sector == slice(bytes, at - start, kSector));
            }
            if (!isThere)
                return testing::AssertionFailure() << "sector at " << at;
        }
        return testing::AssertionSuccess();
    }

private:
    Bytes m_flushed;
    std::vector<std::pair<__int64, Bytes>> m_writes;
};

TEST_F(DirectWritingTest, APowerCutLosesNothingThatWasFlushed) {
    LogCapture const quiet;
    constexpr int kGrains = 6;
    for (char const* const name : {"plain", "splitOnDemand"}) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        Bytes const start = padded(putDisk(kindNamed(name), kGrains / 2), kSmallestDiskBytes);
        FileImages const images = imagesOf(*files);
        auto const recording =
            yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
        // After so many operations, these are what may be there.
        std::vector<std::pair<std::size_t, WrittenSectors>> states;
        WrittenSectors sectors(start);
        std::mt19937 random(kFirstSeed);
        {
            SafeDisk disk(recording.get(), uriOf("disk.vmdk"), kReadWrite, "");
            DirectWriting writing(disk, kTables);
            for (int step = 0; step < 40; ++step) {
                if (random() % 5 == 0) {
                    writing.flush();
                    sectors.flush();
                } else {
                    // The last extent of a split disk too.
                    __int64 const grain = random() % 4 == 0
                                              ? kSmallestDiskBytes / kGrainBytes - 1
                                              : static_cast<__int64>(random() % kGrains);
                    __int64 const position =
                        grain * kGrainBytes + static_cast<__int64>(random() % 8) * kPieceBytes;
                    Bytes const bytes = pattern(kPieceBytes, 1000 + static_cast<unsigned>(step));
                    sectors.write(position, bytes);
                    // It may be there in part before the write returns.
                    states.emplace_back(recording->entries().size(), sectors);
                    write(writing, position, bytes);
                }
                states.emplace_back(recording->entries().size(), sectors);
            }
            writing.flush();
        }
        std::vector<RecordingFileSystem::Entry> const record = recording->entries();
        PowerCut cut(images, record);
        std::size_t state = 0;
        while (cut.step() && state + 1 < states.size()) {
            while (state + 1 < states.size() && states[state + 1].first <= cut.operations())
                ++state;
            if (!cut.hasChanged() || cut.operations() < states.front().first)
                continue;
            for (PowerCut::Loss const loss : PowerCut::kLosses) {
                PowerCut::State const left = cut.makeState(loss, random);
                if (!left.isNew)
                    continue;
                putImages(*files, left.files);
                ASSERT_TRUE(states[state].second.mayBe(contentAfterReopening()))
                    << name << ", operation " << cut.operations() << ", loss "
                    << static_cast<int>(loss);
            }
        }
    }
}

} // namespace
} // namespace direct_writing_test
} // namespace test_support
