#include "host/transfer/parent_swap.h"

#include "host/disk/parent_chain.h"
#include "host/disk/parent_link.h"
#include "host/transfer/held_grains.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/filled_foreign_chain.h"

namespace test_support {
namespace parent_swap_test {
namespace {

using kelm::host::findOwnGrains;
using kelm::host::GrainSet;
using kelm::host::holdGrains;
using kelm::host::ParentCheck;
using kelm::host::ParentSwap;
using kelm::host::WorkOptions;

std::vector<__int64> listOf(GrainSet const& grains) {
    std::vector<__int64> list;
    for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
         grain = grains.findNext(grain + 1))
        list.push_back(grain);
    return list;
}

/// "base.vmdk", "mid.vmdk" and "top.vmdk", each the child of the one before.
class ParentSwapTest : public HostTest {
protected:
    void makeChain(DiskKind const& kind) {
        std::unique_ptr<SafeDisk> disk = createSafe(kind, "base.vmdk");
        for (int grain : {0, 1, 2, 3, 9})
            writeGrain(*disk, grain, textPattern(kGrainBytes, static_cast<unsigned int>(grain)));
        disk->flush();
        disk.reset();
        disk = createSafe(kind, "mid.vmdk", "base.vmdk");
        writeGrain(*disk, 1, pattern(kGrainBytes, 11));
        writeGrain(*disk, 2, zeros(kGrainBytes));
        writeGrain(*disk, 3, textPattern(kGrainBytes, 12));
        writeGrain(*disk, 20, textPattern(kGrainBytes, 13));
        disk->flush();
        disk.reset();
        disk = createSafe(kind, "top.vmdk", "mid.vmdk");
        writeGrain(*disk, 3, textPattern(kGrainBytes, 14));
        disk->flush();
    }

    static ParentSwap::Parents withoutLink(SafeDisk& left, SafeDisk* newParent) {
        ParentSwap::Parents parents;
        parents.oldParent = &left;
        parents.left = {&left};
        parents.newParent = newParent;
        return parents;
    }
};

TEST_F(ParentSwapTest, FindsWhatTheLinkHoldsAndTheChildDoesNot) {
    makeChain(kindNamed("plain"));
    std::unique_ptr<SafeDisk> const base = openSafe("base.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const mid = openSafe("mid.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const top = openSafe("top.vmdk");
    ParentSwap swap(*top, withoutLink(*mid, base.get()));
    EXPECT_EQ((std::vector<__int64>{1, 2, 20}), listOf(swap.findByTables(nullptr)));
    EXPECT_EQ((std::vector<__int64>{1, 2, 20}), listOf(swap.findByContent({})));
}

TEST_F(ParentSwapTest, ByContentLeavesOutWhatIsEqual) {
    makeChain(kindNamed("compressed"));
    {
        std::unique_ptr<SafeDisk> const other = createSafe(kindNamed("plain"), "other.vmdk");
        for (int grain : {0, 2, 3, 9})
            writeGrain(*other, grain, textPattern(kGrainBytes, static_cast<unsigned int>(grain)));
        writeGrain(*other, 1, pattern(kGrainBytes, 11));
        writeGrain(*other, 50, pattern(kGrainBytes, 51));
        other->flush();
    }
    std::unique_ptr<SafeDisk> const base = openSafe("base.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const mid = openSafe("mid.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const other = openSafe("other.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const top = openSafe("top.vmdk");
    ParentSwap::Parents parents;
    parents.oldParent = mid.get();
    parents.left = {mid.get(), base.get()};
    parents.joined = {other.get()};
    parents.newParent = other.get();
    ParentSwap swap(*top, parents);
    EXPECT_EQ((std::vector<__int64>{2, 20, 50}), listOf(swap.findByContent({})));
    EXPECT_EQ((std::vector<__int64>{0, 1, 2, 9, 20, 50}), listOf(swap.findByTables(nullptr)));
}

TEST_F(ParentSwapTest, WithoutANewParentTheChildNeedsAllThatItsParentsHold) {
    makeChain(kindNamed("plain"));
    std::unique_ptr<SafeDisk> const mid = openSafe("mid.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const top = openSafe("top.vmdk");
    ParentSwap swap(*top, withoutLink(*mid, nullptr));
    EXPECT_EQ((std::vector<__int64>{0, 1, 2, 9, 20}), listOf(swap.findByTables(nullptr)));
}

TEST_F(ParentSwapTest, RecordsMoveAsTheyAre) {
    for (char const* const kind : {"compressed", "encryptedCompressed"}) {
        SCOPED_TRACE(kind);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        char const* const password = kindNamed(kind).password;
        {
            // Level 9 makes other records than level 1, which the child would use.
            NewDisk request = requestFor(kindNamed(kind));
            auto const guard = makeGuard();
            guard->keep();
            std::unique_ptr<SafeDisk> disk =
                SafeDisk::create(guard.get(), uriOf("base.vmdk"), request);
            disk.reset();
            request.parent = uriOf("base.vmdk");
            request.compressionLevel = 9;
            disk = SafeDisk::create(guard.get(), uriOf("mid.vmdk"), request);
            writeGrain(*disk, 5, textPattern(kGrainBytes, 5));
            disk->flush();
            disk.reset();
            request.parent = uriOf("mid.vmdk");
            request.compressionLevel = 1;
            SafeDisk::create(guard.get(), uriOf("top.vmdk"), request)->flush();
        }
        std::unique_ptr<SafeDisk> const base = openSafe("base.vmdk", kReadOnly, password);
        std::unique_ptr<SafeDisk> const mid = openSafe("mid.vmdk", kReadOnly, password);
        std::unique_ptr<SafeDisk> top = openSafe("top.vmdk", kReadWrite, password);
        ParentSwap swap(*top, withoutLink(*mid, base.get()));
        holdGrains(*top, swap.findByTables(nullptr), {});
        top.reset();
        top = openSafe("top.vmdk", kReadOnly, password);
        ASSERT_TRUE(top->isGrainWrittenHere(5));
        Buffer moved;
        Buffer original;
        ASSERT_TRUE(top->tryReadPreparedGrain(5, moved));
        ASSERT_TRUE(mid->tryReadPreparedGrain(5, original));
        EXPECT_TRUE(sameBytes(original, moved));
    }
}

TEST_F(ParentSwapTest, KeepsTheContentIDOfTheChild) {
    makeChain(kindNamed("compressed"));
    std::unique_ptr<SafeDisk> const base = openSafe("base.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const mid = openSafe("mid.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> top = openSafe("top.vmdk");
    unsigned int const before = top->getDisk().getDescriptor()->getContentID();
    ParentSwap swap(*top, withoutLink(*mid, base.get()));
    holdGrains(*top, swap.findByTables(nullptr), {});
    top.reset();
    EXPECT_EQ(before, openSafe("top.vmdk", kReadOnly)->getDisk().getDescriptor()->getContentID());
}

TEST_F(ParentSwapTest, VerifiesThatTheChildWillReadAsBefore) {
    makeChain(kindNamed("plain"));
    std::unique_ptr<SafeDisk> const base = openSafe("base.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const mid = openSafe("mid.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const top = openSafe("top.vmdk");
    ParentSwap swap(*top, withoutLink(*mid, base.get()));
    GrainSet const own = findOwnGrains(*top, nullptr);
    EXPECT_EQ((std::vector<__int64>{3}), listOf(own));
    auto const expectDiffersAt = [&](int grain) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, "The disk would not read as before.",
                                  {{"uri", uriOf("top.vmdk").toString(true).toStdString()},
                                   {"position", std::to_string(grain * kGrainBytes)}},
                                  [&] { swap.verifyReadsAsBefore(own, {}); }));
    };
    // Nothing was copied yet.
    expectDiffersAt(1);
    holdGrains(*top, swap.findByTables(nullptr), {});
    swap.verifyReadsAsBefore(own, {});
    // A copy that is none.
    writeGrain(*top, 2, pattern(kGrainBytes, 7));
    top->flush();
    expectDiffersAt(2);
}

/// Chains of other software, of any grain sizes and forms, of which a link is taken out.
TEST_F(ParentSwapTest, OfForeignChainsKeepsTheContent) {
    int held = 0;
    int refused = 0;
    for (unsigned int seed = 1; seed <= 40; ++seed) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        FilledForeignChain chain(*files, uriOf(""), seed);
        SCOPED_TRACE(testing::Message() << "seed " << seed << chain);
        std::size_t const top = chain.getLength() - 1;
        std::string const name = chain.disk(top).name;
        std::unique_ptr<SafeDisk> child;
        try {
            child = openSafe(name, kReadWrite, kForeignPassword);
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(yx::CIOError::NotSupported, error.getIOCode());
            continue;
        }
        std::unique_ptr<SafeDisk> const mid =
            openSafe(chain.disk(top - 1).name, kReadOnly, kForeignPassword);
        std::unique_ptr<SafeDisk> base;
        if (top >= 2)
            base = openSafe(chain.disk(top - 2).name, kReadOnly, kForeignPassword);
        ParentSwap swap(*child, withoutLink(*mid, base.get()));
        GrainSet const grains = swap.findByTables(nullptr);
        try {
            swap.verifyCanHold(grains);
        } catch (yx::CIOError const& error) {
            EXPECT_EQ("The disk cannot keep zeros over what its new parent has.",
                      error.getMessage());
            ++refused;
            continue;
        }
        holdGrains(*child, grains, {});
        swap.verifyReadsAsBefore(findOwnGrains(*child, nullptr), {});
        if (base)
            repointToParent(*child, *base, ParentCheck::None);
        else
            dropParentLink(*child);
        child.reset();
        EXPECT_TRUE(sameBytes(chain.content(top), contentAfterReopening(name, kForeignPassword)));
        ++held;
    }
    EXPECT_GT(held, 8);
    RecordProperty("refused", refused);
}

} // namespace
} // namespace parent_swap_test
} // namespace test_support
