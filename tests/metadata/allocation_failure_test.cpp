// Every allocation of the operations of the metadata fails once.

#include <memory>

#include <gtest/gtest.h>

#include "kelm/metadata/grain_allocator.h"
#include "tests/metadata/file_image.h"
#include "tests/support/bytes.h"
#include "tests/support/fail_each_allocation.h"
#include "tests/support/scripted_stream.h"

namespace kelm {

namespace {

using metadata_test::FileImage;
using test_support::Bytes;
using test_support::failEachAllocation;
using test_support::ScriptedStream;

constexpr int kTableCount = 40;
constexpr int kEntriesPerTable = 4;
constexpr int kGrainSizeSectors = 8;

FileImage makeFile() {
    std::vector<std::uint32_t> positions;
    std::vector<std::uint32_t> slotPositions;
    for (std::uint32_t i = 0; i < kTableCount; ++i) {
        positions.push_back(10 + i);
        slotPositions.push_back(60 + i);
    }
    return FileImage(110)
        .put32(1, positions)
        .putSlotDirectoryMarker(10 + kTableCount, 1)
        .put32(11 + kTableCount, slotPositions)
        // The trail.
        .put16(109, std::vector<std::uint16_t>(256, 0x9999));
}

struct Extent {
    void open() {
        directory = yx::makeObject<CVMDKGrainDirectory>(
            stream.get(), yx::IIOStream::ReadWrite, 1, 0,
            __int64{kTableCount} * kEntriesPerTable * kGrainSizeSectors, kGrainSizeSectors,
            kEntriesPerTable, true, cache.get());
        allocator = yx::makeObject<CVMDKGrainAllocator>(stream.get(), yx::IIOStream::ReadWrite,
                                                        kGrainSizeSectors, 1, directory.get(),
                                                        test_support::toBuffer(Bytes(512, 0x99)));
    }

    yx::P<ScriptedStream> stream = yx::makeObject<ScriptedStream>(makeFile().bytes());
    // Without a limit: what a table that is evicted cannot write is lost, whatever the reason is.
    yx::P<CVMDKGrainTableCache> cache =
        yx::makeObject<CVMDKGrainTableCache>(CVMDKGrainTableCache::kNoLimit);
    yx::P<CVMDKGrainDirectory> directory;
    yx::P<CVMDKGrainAllocator> allocator;
};

using ExtentPtr = std::unique_ptr<Extent>;

/// What the file holds in the end.
Bytes finish(ExtentPtr const& extent) {
    extent->allocator.reset();
    extent->directory.reset();
    extent->cache->clear();
    return extent->stream->content();
}

ExtentPtr openExtent() {
    auto extent = std::make_unique<Extent>();
    extent->open();
    return extent;
}

template <class Run>
void failEach(char const* name, Run const& run) {
    failEachAllocation(
        name,
        [] {
            ExtentPtr extent = openExtent();
            // Changes that must survive.
            extent->directory->setGrainInfo(3, 70, 2);
            extent->directory->setGrainInfo(39 * kEntriesPerTable, 80, 3);
            return extent;
        },
        run, finish);
}

TEST(MetadataAllocations, ChangeOfATableIsNotLost) {
    failEach("same table",
             [](ExtentPtr const& extent) { extent->directory->setGrainInfo(2, 90, 1); });
    failEach("same run", [](ExtentPtr const& extent) {
        extent->directory->setGrainInfo(31 * kEntriesPerTable + 1, 90, 1);
    });
    failEach("after the cache is emptied", [](ExtentPtr const& extent) {
        extent->directory->flushChangesToStream();
        extent->cache->clear();
        extent->directory->setGrainInfo(20 * kEntriesPerTable, 90, 1);
        extent->directory->setGrainInfo(35 * kEntriesPerTable, 91, 1);
    });
    failEach("flush", [](ExtentPtr const& extent) {
        extent->directory->setGrainInfo(2, 90, 1);
        extent->directory->flushChangesToStream();
        extent->allocator->flushChangesToStream();
    });
}

TEST(MetadataAllocations, OpeningDoesNotDependOnOneThatFailed) {
    failEachAllocation(
        "open", [] { return std::make_unique<Extent>(); },
        [](ExtentPtr const& extent) {
            extent->open();
            extent->directory->setGrainInfo(2, 90, 1);
        },
        finish);
}

TEST(MetadataAllocations, NewGrainIsReachableAndKeepsItsData) {
    Bytes const data(700, 0x42);
    failEachAllocation(
        "allocate", openExtent,
        [&](ExtentPtr const& extent) {
            extent->allocator->allocNewGrain(5, data.data(), static_cast<int>(data.size()), 2);
        },
        // Where a place was taken before the failure, the next one lies behind it.
        [&](ExtentPtr const& extent) {
            __int64 posSectors = 0;
            __int64 slotSizeSectors = 0;
            extent->directory->getGrainInfo(5, posSectors, slotSizeSectors);
            Bytes const content = finish(extent);
            auto const start = content.begin() + posSectors * 512;
            return std::pair(slotSizeSectors, Bytes(start, start + std::ssize(data)));
        });
}

} // namespace

} // namespace kelm
