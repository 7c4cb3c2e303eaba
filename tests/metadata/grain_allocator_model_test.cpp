// An allocator with its directory and cache, against a map from grains to bytes, on a file whose
// operations fail now and then: in the middle of a run of tables, of a grain, and of a flush.
// KELM_MODEL_ROUNDS multiplies the number of histories.

#include <algorithm>
#include <cstdint>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelm/metadata/grain_allocator.h"
#include "tests/metadata/file_image.h"
#include "tests/support/bytes.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"
#include "tests/support/scripted_stream.h"

namespace kelm {

namespace {

using metadata_test::FileImage;
using test_support::Bytes;
using test_support::ScriptedStream;

constexpr int kSectorBytes = 512;
constexpr int kTables = 70;
constexpr int kEntriesOfATable = 4;
constexpr int kGrains = kTables * kEntriesOfATable;
constexpr int kGrainSectors = 8;
constexpr int kGrainBytes = kGrainSectors * kSectorBytes;
constexpr int kFirstTable = 10;
constexpr int kSteps = 3000;

struct Form {
    char const* name;
    bool isCompressed;
    bool isRedundant;

    /// Tables in memory; below 0 for all.
    int cacheLimit;
};

std::ostream& operator<<(std::ostream& stream, Form const& form) {
    return stream << form.name;
}

/// Where a cache has a limit, each change is flushed at once: a changed table that leaves it may
/// come back as it was.
constexpr Form kForms[] = {
    {"Plain", false, false, -1},
    {"PlainRedundant", false, true, -1},
    {"Compressed", true, false, -1},
    {"CompressedRedundant", true, true, -1},
    {"PlainFewTables", false, true, 5},
    {"PlainPartOfARun", false, false, 40},
    {"CompressedNoTables", true, false, 0},
    {"CompressedFewTables", true, true, 5},
};

Bytes makeTrail() {
    Bytes trail(3 * kSectorBytes, 0xA1);
    std::iota(trail.begin(), trail.end(), static_cast<unsigned char>(1));
    return trail;
}

Bytes makeFile(Form const& form) {
    std::vector<std::uint32_t> positions(kTables);
    int sector = kFirstTable;
    auto const placeTables = [&] {
        std::iota(positions.begin(), positions.end(), static_cast<std::uint32_t>(sector));
        sector += kTables;
    };
    FileImage image(kFirstTable + 3 * kTables + 16);
    placeTables();
    image.put32(1, positions);
    if (form.isRedundant) {
        placeTables();
        image.put32(2, positions);
    }
    if (form.isCompressed) {
        image.putSlotDirectoryMarker(sector, 1);
        int const directory = sector + 1;
        sector += 2;
        placeTables();
        image.put32(directory, positions);
    }
    Bytes bytes = image.bytes();
    bytes.resize(static_cast<std::size_t>((sector + 7) / 8 * 8 * kSectorBytes));
    if (form.isCompressed)
        bytes = test_support::concat({bytes, makeTrail()});
    return bytes;
}

/// What the map knows of a grain.
struct Slot {
    __int64 posSectors = 0;
    __int64 slotSectors = 0;
    Bytes data;
};

/// The real thing and the map, side by side.
class AllocatorModel {
public:
    AllocatorModel(Form const& form, unsigned int seed)
        : m_form(form),
          m_random(seed),
          m_stream(yx::makeObject<ScriptedStream>(makeFile(form))),
          m_slots(kGrains),
          m_dataStart(std::ssize(m_stream->content()) -
                      (form.isCompressed ? std::ssize(makeTrail()) : 0)),
          m_end(m_dataStart) {
        m_stream->setTornWrites(true);
        open(*m_stream);
    }

    void run() {
        for (int i = 0; i < kSteps && !testing::Test::HasFailure(); ++i) {
            SCOPED_TRACE("step " + std::to_string(i));
            step();
            m_stream->operations().clear();
        }
        flush();
        compareWithTheFile();
    }

    int failureCount() const { return m_failures; }
    int failedLoadCount() const { return m_failedLoads; }

private:
    int below(int limit) { return std::uniform_int_distribution<int>(0, limit - 1)(m_random); }

    void open(ScriptedStream& stream) {
        m_cache = yx::makeObject<CVMDKGrainTableCache>(m_form.cacheLimit);
        m_directory = makeDirectory(stream, *m_cache);
        m_allocator = yx::makeObject<CVMDKGrainAllocator>(
            &stream, yx::IIOStream::ReadWrite, kGrainSectors, alignmentSectors(), m_directory.get(),
            test_support::toBuffer(m_form.isCompressed ? makeTrail() : Bytes()));
    }

    yx::P<CVMDKGrainDirectory> makeDirectory(ScriptedStream& stream,
                                             CVMDKGrainTableCache& cache) const {
        return yx::makeObject<CVMDKGrainDirectory>(&stream, yx::IIOStream::ReadWrite, 1,
                                                   m_form.isRedundant ? 2 : 0,
                                                   __int64{kGrains} * kGrainSectors, kGrainSectors,
                                                   kEntriesOfATable, m_form.isCompressed, &cache);
    }

    int alignmentSectors() const { return m_form.isCompressed ? 1 : kGrainSectors; }

    void step() {
        int const dice = below(100);
        if (dice < 50)
            allocate();
        else if (dice < 85)
            compareGrain(below(kGrains));
        else if (dice < 95)
            flush();
        else if (dice < 98)
            compareWithTheFile();
        else
            reopen();
    }

    /// Does `action`; at times an operation of the file fails in its course. False if one did.
    template <class Action>
    bool attempt(Action const& action) {
        // Often far from the first one, so that runs of tables break off in the middle.
        int const failing = below(3) == 0 ? 1 + below(below(2) == 0 ? 5 : 140) : 0;
        int count = 0;
        int writes = 0;
        bool isLoad = false;
        m_hasBrokenGap = false;
        m_stream->setFault([&](ScriptedStream::Operation const& operation) {
            bool const isRead = operation.kind == ScriptedStream::Kind::Read;
            // A table that leaves the cache has nobody to tell that it cannot be written.
            if (m_form.cacheLimit >= 0 && !isRead && operation.position < m_dataStart)
                return false;
            bool const fails = ++count == failing;
            writes += isRead ? 0 : 1;
            // Only what fills the file up to a slot begins within a sector.
            m_hasBrokenGap = m_hasBrokenGap || (fails && !isRead && writes == 1 &&
                                                operation.position % kSectorBytes != 0);
            isLoad = isLoad || (fails && isRead && count > 1);
            return fails;
        });
        bool isDone = true;
        try {
            action();
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(error.getMessage(), "Scripted failure.");
            isDone = false;
        }
        m_stream->setFault({});
        EXPECT_EQ(isDone, failing == 0 || count < failing);
        m_failures += isDone ? 0 : 1;
        m_failedLoads += isLoad ? 1 : 0;
        return isDone;
    }

    void allocate() {
        // Work stays near by for a while, as it does on a disk.
        int const grain = below(4) == 0 ? below(kGrains) : below(40);
        Bytes const data = test_support::pattern(
            static_cast<std::size_t>(m_form.isCompressed ? 1 + below(kGrainBytes) : kGrainBytes),
            static_cast<unsigned int>(m_random()));
        int const sizeBytes = static_cast<int>(data.size());
        int const slotSectors = m_form.isCompressed
                                    ? (sizeBytes + kSectorBytes - 1) / kSectorBytes + below(12)
                                    : kGrainSectors;
        bool const keepsBuffer = below(2) == 0;
        __int64 position = -1;
        auto const allocateOnce = [&] {
            yx::TBuffer<unsigned char> const buffer = test_support::toBuffer(data);
            position = keepsBuffer
                           ? m_allocator->allocNewGrainKeepBuffer(
                                 grain, yx::TConstBufferSlice<unsigned char>(&buffer, 0, sizeBytes),
                                 slotSectors)
                           : m_allocator->allocNewGrain(grain, data.data(), sizeBytes, slotSectors);
        };
        if (!attempt(allocateOnce)) {
            m_hasWaste = true;
            // The trail then stays half overwritten until the next slot.
            m_isTrailDue = m_isTrailDue && !m_hasBrokenGap;
            compareGrain(grain);
            if (below(2) == 0)
                return;
            allocateOnce();
        }
        takeSlot(grain, {position, slotSectors, data});
        if (m_form.cacheLimit >= 0)
            flush();
    }

    /// Nothing that was handed out before is touched, and what a failure spent is all that lies
    /// between.
    void takeSlot(int grain, Slot const& slot) {
        __int64 const startBytes = slot.posSectors * kSectorBytes;
        __int64 const alignmentBytes = alignmentSectors() * kSectorBytes;
        EXPECT_EQ(startBytes % alignmentBytes, 0);
        if (m_hasWaste) {
            EXPECT_GE(startBytes, m_end);
        } else {
            EXPECT_EQ(startBytes, (m_end + alignmentBytes - 1) / alignmentBytes * alignmentBytes);
        }
        m_end = startBytes + slot.slotSectors * kSectorBytes;
        m_hasWaste = false;
        m_isTrailDue = m_form.isCompressed;
        m_slots[static_cast<std::size_t>(grain)] = slot;
    }

    /// What the directory says of a grain, and what the file holds there.
    void compareGrain(int grain) {
        Slot const& slot = m_slots[static_cast<std::size_t>(grain)];
        __int64 posSectors = -1;
        __int64 slotSectors = -1;
        auto const ask = [&] { m_directory->getGrainInfo(grain, posSectors, slotSectors); };
        if (!attempt(ask))
            ask();
        EXPECT_EQ(posSectors, slot.posSectors) << "grain " << grain;
        EXPECT_EQ(slotSectors, slot.slotSectors) << "grain " << grain;
        compareData(grain);
    }

    void compareData(int grain) const {
        Slot const& slot = m_slots[static_cast<std::size_t>(grain)];
        Bytes expected = slot.data;
        expected.resize(static_cast<std::size_t>(slot.slotSectors * kSectorBytes));
        EXPECT_TRUE(test_support::slice(m_stream->content(),
                                        static_cast<std::size_t>(slot.posSectors * kSectorBytes),
                                        expected.size()) == expected)
            << "grain " << grain;
    }

    void flush() {
        auto const flushOnce = [&] {
            m_allocator->flushChangesToStream();
            m_directory->flushChangesToStream();
        };
        while (!attempt(flushOnce)) {
        }
        if (!m_isTrailDue)
            return;
        Bytes const& content = m_stream->content();
        Bytes const trail = makeTrail();
        auto const end = content.begin() + m_end;
        auto const found = std::search(end, content.end(), trail.begin(), trail.end());
        ASSERT_TRUE(found != content.end()) << "no trail behind the last slot";
        EXPECT_TRUE(m_hasWaste || found == end);
    }

    /// Once all is flushed, whoever opens the file anew finds what the map says.
    void compareWithTheFile() {
        flush();
        auto const stream = yx::makeObject<ScriptedStream>(m_stream->content());
        auto const cache = yx::makeObject<CVMDKGrainTableCache>(CVMDKGrainTableCache::kNoLimit);
        yx::P<CVMDKGrainDirectory> const directory = makeDirectory(*stream, *cache);
        for (int grain = 0; grain < kGrains; ++grain) {
            Slot const& slot = m_slots[static_cast<std::size_t>(grain)];
            __int64 posSectors = -1;
            __int64 slotSectors = -1;
            directory->getGrainInfo(grain, posSectors, slotSectors);
            EXPECT_EQ(posSectors, slot.posSectors) << "grain " << grain;
            EXPECT_EQ(slotSectors, slot.slotSectors) << "grain " << grain;
            compareData(grain);
        }
    }

    void reopen() {
        // Half the time nobody flushes before the end.
        if (below(2) == 0)
            flush();
        m_allocator.reset();
        m_directory.reset();
        // A trail that a failure has left amid the file is no longer the one at its end.
        bool const isTrailAtEnd =
            m_form.isCompressed && Bytes(m_stream->content().end() - std::ssize(makeTrail()),
                                         m_stream->content().end()) == makeTrail();
        m_end = std::ssize(m_stream->content()) - (isTrailAtEnd ? std::ssize(makeTrail()) : 0);
        m_hasWaste = false;
        m_isTrailDue = m_form.isCompressed && !isTrailAtEnd;
        open(*m_stream);
    }

    Form m_form;
    std::mt19937 m_random;
    yx::P<ScriptedStream> m_stream;
    yx::P<CVMDKGrainTableCache> m_cache;
    yx::P<CVMDKGrainDirectory> m_directory;
    yx::P<CVMDKGrainAllocator> m_allocator;
    std::vector<Slot> m_slots;

    /// Behind the tables.
    __int64 m_dataStart;

    /// The end of the last slot, or of the file as it was opened without its trail.
    __int64 m_end;

    /// Whether an allocation has failed since, and may have spent room behind it.
    bool m_hasWaste = false;
    bool m_isTrailDue = false;

    /// Whether the last attempt failed in the gap before a slot.
    bool m_hasBrokenGap = false;
    int m_failures = 0;
    int m_failedLoads = 0;
};

class GrainAllocatorModel : public testing::TestWithParam<Form> {};

TEST_P(GrainAllocatorModel, BehavesAsAMapThoughTheFileFails) {
    // A file that does not end in its trail is warned of.
    test_support::LogCapture const quiet;
    for (unsigned int round = 0; round < test_support::modelRounds() && !HasFailure(); ++round) {
        unsigned int const seed = 7000 + round;
        SCOPED_TRACE("seed " + std::to_string(seed));
        AllocatorModel model(GetParam(), seed);
        model.run();
        EXPECT_GT(model.failureCount(), 50);
        EXPECT_GT(model.failedLoadCount(), 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Forms, GrainAllocatorModel, testing::ValuesIn(kForms),
                         [](auto const& form) { return std::string(form.param.name); });

} // namespace

} // namespace kelm
