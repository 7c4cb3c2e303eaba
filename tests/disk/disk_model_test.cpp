// Disks of every kind, and chains of three of a kind, against arrays of bytes. KELM_MODEL_ROUNDS
// multiplies the number of histories.

#include "tests/disk/disk_history.h"
#include "tests/support/child_process.h"
#include "tests/support/model_rounds.h"
#include "tests/support/temp_directory.h"

namespace test_support {
namespace {

class DiskModel : public testing::TestWithParam<DiskKind> {};

void runHistoryInMemory(DiskKind const& kind, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const uri("mem:///d/disk.vmdk");
    createDisk(files.get(), uri, kind, yx::CURI());
    History history(files.get(), uri, kind, nullptr, seed);
    ASSERT_NO_FATAL_FAILURE(history.run(400));
    EXPECT_TRUE(readsAs(*files, uri, kind, history.model().content()));
    EXPECT_TRUE(extentsAreSound(*files, uri, kind));
}

void runChainInMemory(DiskKind const& kind, unsigned int seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    std::vector<std::unique_ptr<History>> chain;
    yx::CURI parent;
    for (unsigned int level = 0; level < 3; ++level) {
        yx::CURI const uri(
            yx::String::fromUTF8("mem:///d/level" + std::to_string(level) + ".vmdk"));
        createDisk(files.get(), uri, kind, parent);
        chain.push_back(std::make_unique<History>(files.get(), uri, kind,
                                                  chain.empty() ? nullptr : &chain.back()->model(),
                                                  seed + level));
        ASSERT_NO_FATAL_FAILURE(chain.back()->run(120));
        EXPECT_TRUE(readsAs(*files, uri, kind, chain.back()->model().content())) << uri;
        EXPECT_TRUE(extentsAreSound(*files, uri, kind));
        parent = uri;
    }
}

TEST_P(DiskModel, HistoriesReadBackInMemory) {
    for (unsigned int round = 0; round < modelRounds() && !HasFailure(); ++round)
        runHistoryInMemory(GetParam(), 20240601 + round);
}

TEST_P(DiskModel, ChainsOfThreeReadBack) {
    // Each disk of a chain has a seed of its own.
    for (unsigned int round = 0; round < modelRounds() && !HasFailure(); ++round)
        runChainInMemory(GetParam(), 4711 + 3 * round);
}

TEST_P(DiskModel, HistoriesOnTheNativeFileSystemReadBackInAnotherProcess) {
    DiskKind const kind = GetParam();
    TempDirectory const directory;
    yx::CNativeFileSystem files(yx::NativeFlush::ToSystem);
    yx::CURI const uri = directory.uri("disk.vmdk");
    createDisk(&files, uri, kind, yx::CURI());
    History history(&files, uri, kind, nullptr, 99);
    ASSERT_NO_FATAL_FAILURE(history.run(100));
    ChildProcess child([&](Line const&) {
        return readsAs(files, uri, kind, history.model().content()) &&
                       extentsAreSound(files, uri, kind)
                   ? 0
                   : 1;
    });
    EXPECT_EQ(0, child.wait());
}

INSTANTIATE_TEST_SUITE_P(EveryKind, DiskModel, testing::ValuesIn(allDiskKinds()),
                         [](testing::TestParamInfo<DiskKind> const& parameter) {
                             return std::string(parameter.param.name);
                         });

TEST(DiskChain, ChildMayBeLargerThanItsParent) {
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const parentURI("mem:///d/parent.vmdk");
    yx::CURI const childURI("mem:///d/child.vmdk");
    Bytes const content = pattern(1000, 1);
    unsigned int id = 0;
    {
        yx::P<kelm::CVMDKDisk> const parent = kelm::CVMDKDisk::create(
            files.get(), parentURI, kSmallestDiskBytes, "", true, 1, -1, "", kNoParentID, false);
        parent->seek(kSmallestDiskBytes - 1000);
        parent->write(content.data(), 1000);
        id = parent->getDescriptor()->getContentID();
    }
    yx::P<kelm::CVMDKDisk> const child =
        kelm::CVMDKDisk::create(files.get(), childURI, kSmallestDiskBytes + kGrainBytes, "", true,
                                1, -1, "parent.vmdk", id, false);
    Bytes actual(3000);
    child->seek(kSmallestDiskBytes - 1000);
    child->read(actual.data(), 3000);
    EXPECT_TRUE(sameBytes(concat({content, zeros(2000)}), actual));
    Buffer prepared;
    child->seek(kSmallestDiskBytes);
    child->readPreparedGrainData(prepared);
    // The record behind the parent's end is that of the child's grain 128, sector 16384.
    EXPECT_TRUE(sameBytes(fromHex("0040000000000000"), slice(toBytes(prepared), 0, 8)));
}

} // namespace
} // namespace test_support
