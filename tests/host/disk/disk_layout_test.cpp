#include "host/disk/disk_layout.h"

#include <gmock/gmock.h>

#include "host/disk/extent_names.h"
#include "host/disk/unflushed_grains.h"

using kelm::host::DiskExtent;
using kelm::host::DiskLayout;
using kelm::host::isExtentName;
using kelm::host::UnflushedGrains;
using testing::ElementsAre;
using testing::Pair;

namespace test_support {
namespace {

constexpr __int64 kGrain = 65536;

DiskLayout layoutOf(std::vector<__int64> const& ends) {
    std::vector<DiskExtent> extents;
    __int64 start = 0;
    for (__int64 const end : ends) {
        extents.push_back({yx::CURI("mem:///disks/a.vmdk"), start, end, kGrain, false});
        start = end;
    }
    return DiskLayout(extents);
}

TEST(DiskLayout, FindsTheExtentOfAByte) {
    DiskLayout const layout = layoutOf({2 * kGrain, 2 * kGrain, 5 * kGrain});
    EXPECT_EQ(0U, layout.findExtent(0));
    EXPECT_EQ(0U, layout.findExtent(2 * kGrain - 1));
    // The second one is empty.
    EXPECT_EQ(2U, layout.findExtent(2 * kGrain));
    EXPECT_EQ(2U, layout.findExtent(5 * kGrain - 1));
    EXPECT_EQ(3U, layout.findExtent(5 * kGrain));
}

TEST(DiskLayout, CountsGrainsAndTheBytesOfTheLast) {
    DiskLayout const layout = layoutOf({2 * kGrain, 3 * kGrain + 512});
    EXPECT_EQ(3 * kGrain + 512, layout.getSizeBytes());
    EXPECT_EQ(4, layout.getGrainCount());
    EXPECT_TRUE(layout.areExtentsWholeGrains());
    EXPECT_EQ(kGrain, layout.getGrainBytesAt(2 * kGrain));
    EXPECT_EQ(512, layout.getGrainBytesAt(3 * kGrain));
}

TEST(DiskLayout, KnowsOfAnExtentThatStartsWithinAGrain) {
    DiskLayout const layout = layoutOf({kGrain + 512, 4 * kGrain});
    EXPECT_FALSE(layout.areExtentsWholeGrains());
    EXPECT_EQ(2, layout.getExtents()[1].getStartGrainIndex());
}

TEST(DiskLayout, CutsARangeAtTheGrains) {
    std::vector<std::pair<__int64, int>> parts;
    layoutOf({8 * kGrain}).forEachGrainPart(kGrain - 10, kGrain + 30, [&](__int64 at, int bytes) {
        parts.emplace_back(at, bytes);
    });
    EXPECT_THAT(parts,
                ElementsAre(Pair(kGrain - 10, 10), Pair(kGrain, kGrain), Pair(2 * kGrain, 20)));
}

TEST(DiskExtent, OverlapsWhatItHoldsAByteOf) {
    DiskExtent const extent{yx::CURI(), 100, 200};
    EXPECT_TRUE(extent.overlaps(199, 1));
    EXPECT_TRUE(extent.overlaps(0, 101));
    EXPECT_FALSE(extent.overlaps(200, 10));
    EXPECT_FALSE(extent.overlaps(0, 100));
}

TEST(ExtentNames, AreThoseOfASplittingInTheFolderOfTheDisk) {
    yx::CURI const main("mem:///disks/a.vmdk");
    for (char const* const name : {"a-s0.vmdk", "a-s00001.vmdk"})
        EXPECT_TRUE(isExtentName(main, yx::CURI("mem:///disks/") << yx::String(name))) << name;
    for (char const* const name :
         {"a.vmdk", "a-s.vmdk", "a-sx.vmdk", "a-s1.img", "b-s1.vmdk", "a-s1.vmdk.unfinished"})
        EXPECT_FALSE(isExtentName(main, yx::CURI("mem:///disks/") << yx::String(name))) << name;
    EXPECT_FALSE(isExtentName(main, yx::CURI("mem:///other/a-s1.vmdk")));
}

TEST(UnflushedGrains, KnowWhatWasChangedUntilTheyAreCleared) {
    UnflushedGrains grains;
    EXPECT_TRUE(grains.isEmpty());
    for (__int64 const grain : {__int64{0}, __int64{65535}, __int64{65536}, __int64{1} << 40})
        grains.add(grain);
    EXPECT_TRUE(grains.contains(65536));
    EXPECT_TRUE(grains.contains(__int64{1} << 40));
    EXPECT_FALSE(grains.contains(1));
    EXPECT_FALSE(grains.contains(__int64{1} << 41));
    grains.clear();
    EXPECT_TRUE(grains.isEmpty());
    EXPECT_FALSE(grains.contains(0));
}

TEST(UnflushedGrains, AreStuckOnlyWhereThereAreSome) {
    UnflushedGrains grains;
    grains.noteFailure();
    grains.add(1);
    EXPECT_FALSE(grains.areStuck());
    grains.noteFailure();
    EXPECT_TRUE(grains.areStuck());
    grains.clear();
    grains.add(1);
    EXPECT_FALSE(grains.areStuck());
}

} // namespace
} // namespace test_support
