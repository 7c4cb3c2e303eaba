#include "kelm/metadata/grain_table_cache.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

#include "tests/metadata/file_image.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/scripted_stream.h"

namespace kelm {

namespace {

using metadata_test::FileImage;
using test_support::ScriptedStream;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;
using IgnoredExceptions = std::vector<test_support::IgnoredExceptionCapture::Entry>;
using Operations = std::vector<Operation>;

/// A directory for a key; the cache never looks behind the address.
CVMDKGrainDirectory* directoryAt(std::uintptr_t address) {
    return reinterpret_cast<CVMDKGrainDirectory*>(address);
}

CVMDKGrainDirectory* const kOne = directoryAt(0x1000);
CVMDKGrainDirectory* const kTwo = directoryAt(0x2000);

/// Tables of one entry each; table i lies at sector i.
class GrainTableCache : public testing::Test {
protected:
    yx::P<CVMDKGrainTable> makeTable(int sector) {
        return yx::makeObject<CVMDKGrainTable>(stream.get(), yx::IIOStream::ReadWrite, 128, sector,
                                               0, 0, 1);
    }

    /// A table with a change, so that its flush shows as a write at its sector.
    yx::P<CVMDKGrainTable> makeChangedTable(int sector) {
        yx::P<CVMDKGrainTable> table = makeTable(sector);
        table->setGrainInfo(0, ++lastPosSectors, 128);
        return table;
    }

    static void put(CVMDKGrainTableCache& cache, CVMDKGrainDirectory* directory, __int64 index,
                    yx::P<CVMDKGrainTable> const& table) {
        cache.setCachedTable(directory, index, table.get());
    }

    /// The sectors of the tables that were written, in this order, since the last call.
    std::vector<long long> takeWrittenSectors() {
        std::vector<long long> sectors;
        for (Operation const& write : stream->operationsOf(Kind::Write))
            sectors.push_back(write.position / 512);
        stream->operations().clear();
        return sectors;
    }

    /// Which of the directory's tables 0 to 9 are there. Being asked for, they count as used.
    static std::vector<int> cachedIndices(CVMDKGrainTableCache& cache,
                                          CVMDKGrainDirectory* directory) {
        std::vector<int> indices;
        for (int i = 0; i < 10; ++i) {
            if (cache.getCachedTable(directory, i))
                indices.push_back(i);
        }
        return indices;
    }

    using Sectors = std::vector<long long>;
    using Indices = std::vector<int>;

    yx::P<ScriptedStream> stream = yx::makeObject<ScriptedStream>(FileImage(32).bytes());
    __int64 lastPosSectors = 1000;
};

TEST(GrainTableCacheKey, OrdersByUnsignedAddressAndThenBySignedIndex) {
    using Key = CVMDKGrainTableCache::CKey;
    constexpr std::uintptr_t kHighest = std::numeric_limits<std::uintptr_t>::max() - 0xFFF;
    std::vector<Key> const rising{
        {directoryAt(0x1000), std::numeric_limits<__int64>::min()},
        {directoryAt(0x1000), -1},
        {directoryAt(0x1000), 0},
        {directoryAt(0x1000), 0x100000000},
        {directoryAt(0x2000), -5},
        {directoryAt(0x2000), 0},
        {directoryAt(kHighest), -7},
    };
    for (std::size_t i = 0; i < rising.size(); ++i) {
        for (std::size_t j = 0; j < rising.size(); ++j)
            EXPECT_EQ(rising[i] < rising[j], i < j) << i << " and " << j;
    }
}

TEST_F(GrainTableCache, KeepsThousandAndTwentyFourTablesUnlessToldOtherwise) {
    CVMDKGrainTableCache cache;
    yx::P<CVMDKGrainTable> const table = makeTable(1);
    for (int i = 0; i < 1030; ++i)
        put(cache, kOne, i, table);
    EXPECT_EQ(cache.getCachedTableCount(), 1024);
    EXPECT_EQ(cache.getCachedTable(kOne, 5), nullptr);
    EXPECT_EQ(cache.getCachedTable(kOne, 6), table);
}

TEST_F(GrainTableCache, MissYieldsNull) {
    CVMDKGrainTableCache cache(3);
    EXPECT_EQ(cache.getCachedTable(kOne, 0), nullptr);
    put(cache, kOne, 0, makeTable(1));
    EXPECT_EQ(cache.getCachedTable(kOne, 1), nullptr);
    EXPECT_EQ(cache.getCachedTable(kTwo, 0), nullptr);
    EXPECT_EQ(cache.getCachedTableCount(), 1);
}

TEST_F(GrainTableCache, LeastRecentlyUsedTableIsEvicted) {
    CVMDKGrainTableCache cache(3);
    for (int i = 1; i <= 3; ++i)
        put(cache, kOne, i, makeTable(i));
    ASSERT_NE(cache.getCachedTable(kOne, 1), nullptr);
    put(cache, kOne, 4, makeTable(4));
    EXPECT_EQ(cache.getCachedTableCount(), 3);
    EXPECT_EQ(cachedIndices(cache, kOne), (Indices{1, 3, 4}));
}

TEST_F(GrainTableCache, MissDoesNotCountAsUse) {
    CVMDKGrainTableCache cache(2);
    put(cache, kOne, 1, makeTable(1));
    put(cache, kOne, 2, makeTable(2));
    EXPECT_EQ(cache.getCachedTable(kOne, 9), nullptr);
    put(cache, kOne, 3, makeTable(3));
    EXPECT_EQ(cachedIndices(cache, kOne), (Indices{2, 3}));
}

TEST_F(GrainTableCache, EvictionFlushesChangesAndSparesNoTableForThem) {
    CVMDKGrainTableCache cache(2);
    put(cache, kOne, 1, makeChangedTable(1));
    put(cache, kOne, 2, makeTable(2));
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
    put(cache, kOne, 3, makeTable(3));
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
    EXPECT_EQ(cachedIndices(cache, kOne), (Indices{2, 3}));
}

TEST_F(GrainTableCache, EvictedTableThatIsHeldFlushesWhenItIsLetGo) {
    CVMDKGrainTableCache cache(1);
    yx::P<CVMDKGrainTable> held = makeChangedTable(1);
    put(cache, kOne, 1, held);
    put(cache, kOne, 2, makeTable(2));
    EXPECT_EQ(cache.getCachedTable(kOne, 1), nullptr);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
    held.reset();
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
}

TEST_F(GrainTableCache, LimitOfZeroKeepsNothing) {
    CVMDKGrainTableCache cache(0);
    put(cache, kOne, 1, makeChangedTable(1));
    EXPECT_EQ(cache.getCachedTableCount(), 0);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
}

TEST_F(GrainTableCache, NegativeLimitIsNoLimit) {
    for (int const limit : {-1, std::numeric_limits<int>::min()}) {
        CVMDKGrainTableCache cache(limit);
        yx::P<CVMDKGrainTable> const table = makeTable(1);
        for (int i = 0; i < 2000; ++i)
            put(cache, kOne, i, table);
        cache.enforceLimit();
        EXPECT_EQ(cache.getCachedTableCount(), 2000);
    }
}

TEST_F(GrainTableCache, CountMayPassTheLimitWhileItIsNotEnforcedAutomatically) {
    CVMDKGrainTableCache cache(2);
    cache.setAutoEnforceLimit(true);
    cache.setAutoEnforceLimit(false);
    for (int i = 1; i <= 5; ++i)
        put(cache, kOne, i, makeChangedTable(i));
    EXPECT_EQ(cache.getCachedTableCount(), 5);
    cache.setAutoEnforceLimit(false);
    EXPECT_EQ(cache.getCachedTableCount(), 5);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});

    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(cache.getCachedTableCount(), 2);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1, 2, 3}));
    put(cache, kOne, 6, makeTable(6));
    EXPECT_EQ(cache.getCachedTableCount(), 2);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{4}));
}

TEST_F(GrainTableCache, LimitCanBeEnforcedWhileItIsNotEnforcedAutomatically) {
    CVMDKGrainTableCache cache(2);
    cache.setAutoEnforceLimit(false);
    for (int i = 1; i <= 4; ++i)
        put(cache, kOne, i, makeTable(i));
    cache.enforceLimit();
    EXPECT_EQ(cachedIndices(cache, kOne), (Indices{3, 4}));
    put(cache, kOne, 5, makeTable(5));
    EXPECT_EQ(cache.getCachedTableCount(), 3);
}

TEST_F(GrainTableCache, ReplacementCountsAsUseAndEvictsNothing) {
    CVMDKGrainTableCache cache(2);
    cache.setAutoEnforceLimit(false);
    for (int i = 1; i <= 4; ++i)
        put(cache, kOne, i, makeTable(i));

    yx::P<CVMDKGrainTable> const replacement = makeTable(1);
    put(cache, kOne, 1, replacement);
    EXPECT_EQ(cache.getCachedTableCount(), 4);
    cache.setAutoEnforceLimit(true);
    EXPECT_EQ(cachedIndices(cache, kOne), (Indices{1, 4}));
    EXPECT_EQ(cache.getCachedTable(kOne, 1), replacement);
}

TEST_F(GrainTableCache, ReplacedTableFlushesWhenTheNewOneIsInPlace) {
    CVMDKGrainTableCache cache(3);
    put(cache, kOne, 1, makeChangedTable(1));
    yx::P<CVMDKGrainTable> const replacement = makeTable(1);
    bool seen = false;
    stream->setFault([&](Operation const& operation) {
        if (operation.kind == Kind::Write) {
            EXPECT_EQ(cache.getCachedTable(kOne, 1), replacement);
            seen = true;
        }
        return false;
    });
    put(cache, kOne, 1, replacement);
    EXPECT_TRUE(seen);
    EXPECT_EQ(cache.getCachedTableCount(), 1);
}

TEST_F(GrainTableCache, SameTablePutAgainIsNotFlushed) {
    CVMDKGrainTableCache cache(3);
    yx::P<CVMDKGrainTable> table = makeChangedTable(1);
    put(cache, kOne, 1, table);
    put(cache, kOne, 1, table);
    table.reset();
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
    EXPECT_TRUE(cache.getCachedTable(kOne, 1)->hasUnflushedChanges());
}

TEST_F(GrainTableCache, FlushWritesOneDirectoryInRisingIndexAndKeepsItsTables) {
    CVMDKGrainTableCache cache(8);
    for (int const i : {5, 1, 3}) {
        put(cache, kTwo, i, makeChangedTable(10 + i));
        put(cache, kOne, i, makeChangedTable(i));
    }
    put(cache, kOne, 2, makeTable(2));
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1, 3, 5}));
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
    EXPECT_EQ(cache.getCachedTableCount(), 7);
    cache.flushCachedTablesFromDirectoryToStream(kTwo);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{11, 13, 15}));
}

TEST_F(GrainTableCache, ChangeAfterAFlushIsFlushedByTheNextOne) {
    CVMDKGrainTableCache cache(8);
    put(cache, kOne, 1, makeChangedTable(1));
    put(cache, kTwo, 2, makeTable(2));
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    cache.flushCachedTablesFromDirectoryToStream(kTwo);
    takeWrittenSectors();
    cache.getCachedTable(kTwo, 2)->setGrainInfo(0, 7, 128);
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
    cache.flushCachedTablesFromDirectoryToStream(kTwo);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{2}));
    // Changed to what the file holds already.
    cache.getCachedTable(kTwo, 2)->setGrainInfo(0, 7, 128);
    cache.flushCachedTablesFromDirectoryToStream(kTwo);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
}

TEST_F(GrainTableCache, TableThatChangedOutsideIsFlushedOnceItIsBack) {
    CVMDKGrainTableCache cache(8);
    yx::P<CVMDKGrainTable> const table = makeTable(1);
    put(cache, kOne, 1, table);
    put(cache, kOne, 2, makeTable(2));
    cache.removeCachedTablesFromDirectory(kOne);
    table->setGrainInfo(0, 7, 128);
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
    put(cache, kOne, 1, table);
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
}

TEST_F(GrainTableCache, TableInTwoCachesIsFlushedByEither) {
    CVMDKGrainTableCache first(8);
    CVMDKGrainTableCache second(8);
    yx::P<CVMDKGrainTable> const table = makeTable(1);
    put(first, kOne, 1, table);
    put(second, kTwo, 1, table);
    __int64 posSectors = 0;
    for (CVMDKGrainTableCache* const cache : {&first, &second, &first, &second}) {
        CVMDKGrainDirectory* const directory = cache == &first ? kOne : kTwo;
        cache->flushCachedTablesFromDirectoryToStream(directory);
        takeWrittenSectors();
        table->setGrainInfo(0, ++posSectors, 128);
        cache->flushCachedTablesFromDirectoryToStream(directory);
        EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
    }
}

TEST_F(GrainTableCache, CopyFlushesWhatChangedInTheTablesThatItShares) {
    CVMDKGrainTableCache cache(8);
    put(cache, kOne, 1, makeTable(1));
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    CVMDKGrainTableCache copy(cache);
    cache.getCachedTable(kOne, 1)->setGrainInfo(0, 7, 128);
    copy.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
}

TEST_F(GrainTableCache, TableThatAnotherIsAssignedToIsFlushed) {
    CVMDKGrainTableCache cache(8);
    put(cache, kOne, 1, makeTable(1));
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    yx::P<CVMDKGrainTable> const changed = makeChangedTable(2);
    *cache.getCachedTable(kOne, 1) = *changed;
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{2}));
    changed->flushChangesToStream();
}

TEST_F(GrainTableCache, FlushIsNoUse) {
    CVMDKGrainTableCache cache(3);
    for (int const i : {3, 1, 2})
        put(cache, kOne, i, makeChangedTable(i));
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    put(cache, kOne, 4, makeTable(4));
    EXPECT_EQ(cachedIndices(cache, kOne), (Indices{1, 2, 4}));
}

TEST_F(GrainTableCache, FailedFlushPassesAndLeavesTheRestChanged) {
    CVMDKGrainTableCache cache(3);
    for (int i = 1; i <= 3; ++i)
        put(cache, kOne, i, makeChangedTable(i));
    stream->setFault([](Operation const& operation) {
        return operation.kind == Kind::Write && operation.position == 2 * 512;
    });
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::IOFailure, "Scripted failure.", {{"uri", "test:/stream"}},
        [&] { cache.flushCachedTablesFromDirectoryToStream(kOne); }));
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1, 2}));
    stream->setFault({});
    cache.flushCachedTablesFromDirectoryToStream(kOne);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{2, 3}));
}

TEST_F(GrainTableCache, RemovalDropsOneDirectoryInRisingIndex) {
    CVMDKGrainTableCache cache(8);
    for (int const i : {5, 1, 3}) {
        put(cache, kTwo, i, makeChangedTable(10 + i));
        put(cache, kOne, i, makeChangedTable(i));
    }
    cache.removeCachedTablesFromDirectory(kOne);
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1, 3, 5}));
    EXPECT_EQ(cachedIndices(cache, kOne), Indices{});
    EXPECT_EQ(cachedIndices(cache, kTwo), (Indices{1, 3, 5}));
}

TEST_F(GrainTableCache, RemovalOfADirectoryWithoutTablesChangesNothing) {
    CVMDKGrainTableCache cache(8);
    put(cache, kOne, 1, makeChangedTable(1));
    cache.removeCachedTablesFromDirectory(kTwo);
    cache.removeCachedTablesFromDirectory(directoryAt(0x800));
    EXPECT_EQ(cache.getCachedTableCount(), 1);
    EXPECT_EQ(takeWrittenSectors(), Sectors{});
}

TEST_F(GrainTableCache, RoomOfRemovedTablesIsFreeAgain) {
    CVMDKGrainTableCache cache(3);
    put(cache, kOne, 1, makeTable(1));
    put(cache, kTwo, 1, makeTable(2));
    put(cache, kOne, 2, makeTable(3));
    cache.removeCachedTablesFromDirectory(kOne);
    put(cache, kTwo, 2, makeTable(4));
    put(cache, kTwo, 3, makeTable(5));
    EXPECT_EQ(cachedIndices(cache, kTwo), (Indices{1, 2, 3}));
    put(cache, kTwo, 4, makeTable(6));
    EXPECT_EQ(cachedIndices(cache, kTwo), (Indices{2, 3, 4}));
}

TEST_F(GrainTableCache, ClearDropsEverything) {
    for (bool const enforced : {true, false}) {
        CVMDKGrainTableCache cache(8);
        cache.setAutoEnforceLimit(enforced);
        put(cache, kOne, 1, makeChangedTable(1));
        put(cache, kTwo, 1, makeChangedTable(2));
        put(cache, kOne, 2, makeTable(3));
        cache.clear();
        EXPECT_EQ(cache.getCachedTableCount(), 0);
        Sectors written = takeWrittenSectors();
        std::ranges::sort(written);
        EXPECT_EQ(written, (Sectors{1, 2}));
        put(cache, kOne, 1, makeTable(1));
        EXPECT_EQ(cachedIndices(cache, kOne), (Indices{1}));
    }
}

TEST_F(GrainTableCache, EndOfTheCacheDropsEverything) {
    yx::P<CVMDKGrainTableCache> cache = yx::makeObject<CVMDKGrainTableCache>(8);
    put(*cache, kOne, 1, makeChangedTable(1));
    cache.reset();
    EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
}

TEST_F(GrainTableCache, FailedFlushOfALeavingTableIsReportedAndTheCacheGoesOn) {
    struct {
        char const* how;
        std::function<void(CVMDKGrainTableCache&, yx::P<CVMDKGrainTable> const&)> leave;
    } const cases[] = {
        {"eviction", [](auto& cache, auto const& other) { put(cache, kOne, 2, other); }},
        {"replacement", [](auto& cache, auto const& other) { put(cache, kOne, 1, other); }},
        {"removal", [](auto& cache, auto const&) { cache.removeCachedTablesFromDirectory(kOne); }},
        {"clear", [](auto& cache, auto const&) { cache.clear(); }},
    };
    for (auto const& [how, leave] : cases) {
        SCOPED_TRACE(how);
        test_support::IgnoredExceptionCapture ignored;
        CVMDKGrainTableCache cache(1);
        put(cache, kOne, 1, makeChangedTable(1));
        yx::P<CVMDKGrainTable> const other = makeTable(2);
        stream->failOnce(Kind::Write);
        leave(cache, other);
        EXPECT_EQ(ignored.entries(),
                  (IgnoredExceptions{{"kelm::CVMDKGrainTable", "Scripted failure.", true}}));
        put(cache, kOne, 3, other);
        EXPECT_EQ(cachedIndices(cache, kOne), (Indices{3}));
        EXPECT_EQ(takeWrittenSectors(), (Sectors{1}));
    }
}

} // namespace

} // namespace kelm
