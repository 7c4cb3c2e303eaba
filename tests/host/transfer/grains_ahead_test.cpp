#include "host/transfer/grains_ahead.h"

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace test_support {
namespace {

using kelm::host::GrainsAhead;

constexpr int kAheadGrains = 128;

class GrainsAheadTest : public HostTest {
protected:
    static Bytes contentOf(int grain) {
        return textPattern(kGrainBytes, static_cast<unsigned int>(grain));
    }

    void putDisk(DiskKind const& kind, std::vector<int> const& grains) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        std::unique_ptr<SafeDisk> const disk = createSafe(kind);
        for (int const grain : grains)
            writeGrain(*disk, grain, contentOf(grain));
        disk->flush();
    }

    static testing::AssertionResult holds(GrainsAhead& ahead, int grain) {
        Buffer const* const found = ahead.find(grain);
        if (!found)
            return testing::AssertionFailure() << "not held: " << grain;
        return sameBytes(contentOf(grain), *found);
    }
};

TEST_F(GrainsAheadTest, FindsEachGrainOnceItIsAskedForAndNoneThatIsNotHeld) {
    std::vector<int> const held = {0, 1, 2, 60, 61, 126, 127};
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        putDisk(kind, held);
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, kind.password);
        for (int const step : {1, 3, 61}) {
            GrainsAhead ahead(*disk, 2);
            for (int grain = 0; grain < kAheadGrains; grain += step) {
                if (std::find(held.begin(), held.end(), grain) == held.end())
                    EXPECT_EQ(nullptr, ahead.find(grain)) << grain;
                else
                    EXPECT_TRUE(holds(ahead, grain));
            }
        }
    }
}

TEST_F(GrainsAheadTest, SameGrainCanBeAskedForAgain) {
    putDisk({"", true}, {4});
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    GrainsAhead ahead(*disk, 1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(nullptr, ahead.find(3));
    }
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(holds(ahead, 4));
    }
}

TEST_F(GrainsAheadTest, FailureComesNotBeforeItsGrainIsAskedFor) {
    std::vector<int> held(kAheadGrains);
    for (int grain = 0; grain < kAheadGrains; ++grain)
        held[static_cast<std::size_t>(grain)] = grain;
    putDisk({"", true}, held);
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    SafeDisk disk(faulty.get(), uriOf("disk.vmdk"), kReadOnly, "");
    GrainsAhead ahead(disk, 2);
    EXPECT_TRUE(holds(ahead, 0));
    faulty->add({.kinds = {FileOperation::Kind::Read}, .nth = 1, .sticky = true});
    int grain = 1;
    try {
        for (; grain < kAheadGrains; ++grain)
            ASSERT_TRUE(holds(ahead, grain));
        FAIL() << "no failure";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ("Injected failure.", error.getMessage().toStdString());
        ASSERT_TRUE(error.getParams().find("grain"));
        EXPECT_EQ(std::to_string(grain), error.getParams().find("grain")->toStdString());
    }
    // What had been read before is not lost by it.
    EXPECT_GT(grain, 1);
    EXPECT_THROW(ahead.find(grain), yx::CIOError);
    EXPECT_THROW(ahead.find(kAheadGrains - 1), yx::CIOError);
}

TEST_F(GrainsAheadTest, GrainThatCannotBeDecodedIsNamed) {
    putDisk({"", true}, {0, 1, 2});
    {
        // Any record of the grain, which no decoder takes.
        std::unique_ptr<SafeDisk> const disk = openSafe();
        Buffer record;
        ASSERT_TRUE(disk->tryReadPreparedGrain(1, record));
        std::fill_n(record.getData() + 12, record.getUsed() - 12, static_cast<unsigned char>(0xFF));
        disk->writePreparedGrain(1, record);
        disk->flush();
    }
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    GrainsAhead ahead(*disk, 2);
    EXPECT_TRUE(holds(ahead, 0));
    try {
        ahead.find(1);
        FAIL() << "no failure";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::CorruptData, error.getIOCode());
        ASSERT_TRUE(error.getParams().find("bytes"));
        EXPECT_EQ("65536-131071", error.getParams().find("bytes")->toStdString());
    }
}

} // namespace
} // namespace test_support
