#include "host/disk/extent_room.h"

#include <fstream>

#include "host/store/file_names.h"
#include "tests/host/host_fixture.h"
#include "tests/support/foreign_chain.h"
#include "yx/native_file_system.h"

using kelm::host::DiskExtent;
using kelm::host::DiskLayout;
using kelm::host::ExtentRoom;

namespace test_support {
namespace extent_room_test {

namespace {

constexpr __int64 kGrain = 65536;
constexpr __int64 kWorstCase = kGrain + 512;
constexpr __int64 kLimit = (__int64{1} << 41) - 3 * 512;

/// Two extents of four grains; the file of the second is still to be made.
class ExtentRoomTest : public HostTest {
protected:
    ExtentRoomTest() { setLength(0); }

    void setLength(__int64 bytes) {
        std::ofstream(pathOf("a"), std::ios::app).close();
        std::filesystem::resize_file(pathOf("a"), static_cast<std::uintmax_t>(bytes));
    }

    yx::P<yx::CNativeFileSystem> native = yx::makeObject<yx::CNativeFileSystem>();
    DiskLayout layout{std::vector<DiskExtent>{
        {folder.uri("a").toNormalized(), 0, 4 * kGrain, kGrain, true},
        {folder.uri("b").toNormalized(), 4 * kGrain, 8 * kGrain, kGrain, true}}};
    int flushes = 0;
    ExtentRoom room{native.get(), layout,
                    [](DiskExtent const&) {
                        return ExtentRoom::GrainRoom{kGrain, kWorstCase};
                    },
                    [this] { ++flushes; }};
};

TEST_F(ExtentRoomTest, LooksAtAFileOnceAndCountsFromThere) {
    for (int i = 0; i < 10; ++i)
        room.reserve(0, kGrain);
    EXPECT_EQ(1, flushes);
    // Each extent has its own count; a file that is not there is looked for each time.
    room.reserve(4 * kGrain, 1);
    room.reserve(4 * kGrain, 1);
    EXPECT_EQ(3, flushes);
}

TEST_F(ExtentRoomTest, RefusesWhatCouldPassTheLimit) {
    // A write of a grain counts as three.
    setLength(kLimit - 3 * kWorstCase + 1);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace,
        "The file could grow beyond the 2 TiB that one file of a disk can hold. Copy the disk to "
        "one that is split over several files.",
        {{"uri", folder.uri("a").toString(true).toStdString()},
         {"length", std::to_string(kLimit - 3 * kWorstCase + 1)}},
        [&] { room.reserve(0, kGrain); }));
    // A smaller one counts as two.
    EXPECT_NO_THROW(room.reserve(0, 100));
    setLength(kLimit - 3 * kWorstCase);
    EXPECT_NO_THROW(room.reserve(0, kGrain));
}

TEST_F(ExtentRoomTest, CountsARangeInEachExtentThatItReaches) {
    setLength(kLimit - 3 * kWorstCase);
    // Half a grain in the first one.
    EXPECT_NO_THROW(room.reserve(4 * kGrain - kGrain / 2, 3 * kGrain));
    EXPECT_EQ(2, flushes);
    // The count has come to the limit, and the file has not: it is looked at again.
    EXPECT_NO_THROW(room.reserve(0, 1));
    EXPECT_EQ(3, flushes);
}

TEST_F(ExtentRoomTest, CountsTheGrainsOfAnExtentByTheirOwnSize) {
    constexpr __int64 kLargeGrain = 16 * kGrain;
    std::vector<std::string> asked;
    ExtentRoom mixed(
        native.get(), layout,
        [&](DiskExtent const& extent) {
            asked.push_back(extent.uri.getName().toStdString());
            return ExtentRoom::GrainRoom{kLargeGrain, kLargeGrain + 512};
        },
        [] {});
    setLength(kLimit - 2 * (kLargeGrain + 512) + 1);
    EXPECT_THROW(mixed.reserve(0, 1), yx::CIOError);
    setLength(kLimit - 2 * (kLargeGrain + 512));
    EXPECT_NO_THROW(mixed.reserve(0, 1));
    EXPECT_NO_THROW(mixed.reserve(0, 1));
    EXPECT_EQ(std::vector<std::string>{"a"}, asked);
    mixed.reserve(3 * kGrain, 2 * kGrain);
    EXPECT_EQ((std::vector<std::string>{"a", "b"}), asked);
}

/// A byte makes the file grow by a grain, and that is its own, not the disk's.
TEST_F(ExtentRoomTest, OfADiskKnowsTheGrainsOfEachFile) {
    constexpr __int64 kLargeGrain = 16 * kGrain;
    makeForeignDisk(*native, folder.uri(), {"disk.vmdk", {{128, 128}, {2048, 2048}}});
    std::filesystem::resize_file(pathOf("disk-s00001.vmdk"),
                                 static_cast<std::uintmax_t>(kLimit - kLargeGrain));
    SafeDisk disk(native.get(), folder.uri("disk.vmdk"), kReadWrite, "");
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace,
        "The file could grow beyond the 2 TiB that one file of a disk can hold. Copy the disk to "
        "one that is split over several files.",
        {{"uri", folder.uri("disk-s00001.vmdk").toString(true).toStdString()},
         {"length", std::to_string(kLimit - kLargeGrain)}},
        [&] { writeTo(disk, kGrain, Bytes{1}); }));
    EXPECT_NO_THROW(writeTo(disk, 0, Bytes{1}));
}

} // namespace

} // namespace extent_room_test
} // namespace test_support
