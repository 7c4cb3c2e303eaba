#include "yx/buffer.h"

#include <cstdlib>
#include <map>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "yx/error.h"

namespace buffer_test {

namespace {

using test_support::throwsInvalidArg;
using yx::TBuffer;
using yx::TConstBufferSlice;
using yx::TCryptBuffer;
using Bytes = TBuffer<unsigned char>;

void fill(Bytes& buffer, int first) {
    for (int i = 0; i < buffer.getUsed(); ++i)
        buffer.getData()[i] = static_cast<unsigned char>(first + i);
}

std::vector<int> contentOf(Bytes const& buffer) {
    return {buffer.getData(), buffer.getData() + buffer.getUsed()};
}

TEST(TBuffer, IsEmptyAtFirst) {
    Bytes const buffer;
    EXPECT_EQ(nullptr, buffer.getData());
    EXPECT_EQ(0, buffer.getUsed());
    EXPECT_EQ(0, buffer.getAllocated());
}

TEST(TBuffer, UsedOfMinusOneMeansAllThatIsReserved) {
    Bytes const buffer(512, -1);
    EXPECT_EQ(512, buffer.getUsed());
    EXPECT_EQ(512, buffer.getAllocated());
    EXPECT_NE(nullptr, buffer.getData());
}

TEST(TBuffer, ReservesMoreThanItUses) {
    Bytes const buffer(16, 4);
    EXPECT_EQ(4, buffer.getUsed());
    EXPECT_EQ(16, buffer.getAllocated());
    Bytes const grown(4, 16);
    EXPECT_EQ(16, grown.getUsed());
    EXPECT_EQ(16, grown.getAllocated());
}

TEST(TBuffer, MayBeOfSizeZero) {
    Bytes buffer(0, -1);
    EXPECT_EQ(0, buffer.getUsed());
    Bytes const copy = buffer;
    buffer = copy;
    EXPECT_EQ(0, buffer.getUsed());
}

TEST(TBuffer, CutAndRestoredSizeKeepsTheBytes) {
    Bytes buffer(4, -1);
    fill(buffer, 1);
    buffer.setUsed(1);
    EXPECT_EQ((std::vector<int>{1}), contentOf(buffer));
    buffer.setUsed(4);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), contentOf(buffer));
    buffer.setUsed(0);
    buffer.setUsed(4);
    EXPECT_EQ((std::vector<int>{1, 2, 3, 4}), contentOf(buffer));
}

TEST(TBuffer, SetUsedGrowsAndKeepsTheBytesBelow) {
    Bytes buffer(3, -1);
    fill(buffer, 1);
    buffer.setUsed(1000);
    EXPECT_EQ(1000, buffer.getUsed());
    EXPECT_GE(buffer.getAllocated(), 1000);
    buffer.setUsed(3);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(buffer));
}

TEST(TBuffer, GrowthKeepsBytesThatAnEarlierSizeHadCutOff) {
    Bytes buffer(3, -1);
    fill(buffer, 1);
    buffer.setUsed(1);
    buffer.ensureAllocated(50);
    buffer.setUsed(3);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(buffer));
}

TEST(TBuffer, EnsureAllocatedLeavesContentAndUsedSizeAlone) {
    Bytes buffer(3, -1);
    fill(buffer, 7);
    buffer.ensureAllocated(100);
    EXPECT_EQ(100, buffer.getAllocated());
    EXPECT_EQ((std::vector<int>{7, 8, 9}), contentOf(buffer));
    unsigned char const* const data = buffer.getData();
    buffer.ensureAllocated(5);
    EXPECT_EQ(100, buffer.getAllocated());
    EXPECT_EQ(data, buffer.getData());
}

TEST(TBuffer, CopiesContentAndUsedSize) {
    Bytes original(8, 3);
    fill(original, 1);
    Bytes copy = original;
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(copy));
    copy.getData()[0] = 99;
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(original));

    Bytes assigned(100, -1);
    assigned = original;
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(assigned));
    Bytes target;
    target.assign(original);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(target));
    target.assign(Bytes());
    EXPECT_EQ(0, target.getUsed());
}

TEST(TBuffer, SelfAssignmentChangesNothing) {
    Bytes buffer(3, -1);
    fill(buffer, 1);
    Bytes const& same = buffer;
    buffer = same;
    buffer.assign(same);
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(buffer));
}

TEST(TBuffer, RefusesSizesBelowZero) {
    Bytes buffer(3, -1);
    fill(buffer, 1);
    EXPECT_TRUE(
        throwsInvalidArg("TBuffer", "Invalid buffer size: -1", [&] { buffer.setUsed(-1); }));
    EXPECT_TRUE(throwsInvalidArg("TBuffer", "Invalid buffer size: -5",
                                 [&] { buffer.ensureAllocated(-5); }));
    EXPECT_TRUE(throwsInvalidArg("TBuffer", "Invalid buffer size: -1", [] { Bytes(-1, -1); }));
    EXPECT_TRUE(throwsInvalidArg("TBuffer", "Invalid buffer size: -2", [] { Bytes(10, -2); }));
    EXPECT_EQ((std::vector<int>{1, 2, 3}), contentOf(buffer));
}

TEST(TBuffer, CountsElementsAndNotBytes) {
    TBuffer<unsigned int> table(4, -1);
    for (int i = 0; i < 4; ++i)
        table.getData()[i] = 0x10000000u + static_cast<unsigned int>(i);
    table.setUsed(512);
    EXPECT_EQ(512, table.getUsed());
    EXPECT_EQ(0x10000003u, table.getData()[3]);
    TBuffer<unsigned short> slots(2, -1);
    slots.getData()[1] = 0xfffe;
    TBuffer<unsigned short> const copy = slots;
    EXPECT_EQ(0xfffe, copy.getData()[1]);
}

TEST(TBuffer, IsAnObjectToo) {
    yx::P<Bytes> const buffer = yx::makeObject<Bytes>(4, -1);
    EXPECT_EQ(4, buffer->getUsed());
}

TEST(TBuffer, GivesOldStorageBackThroughDeleteDataOnGrowth) {
    class Watching : public Bytes {
    public:
        using Bytes::Bytes;
        std::vector<int> given;

    protected:
        void deleteData(unsigned char* data, int allocated) override {
            given.push_back(allocated);
            Bytes::deleteData(data, allocated);
        }
    };
    Watching buffer(8, -1);
    buffer.setUsed(4);
    EXPECT_TRUE(buffer.given.empty());
    buffer.setUsed(20);
    EXPECT_EQ((std::vector<int>{8}), buffer.given);
}

/// An element whose storage is looked at when it is given back.
struct WatchedByte {
    unsigned char value;

    static void* operator new[](std::size_t sizeBytes) {
        void* const storage = std::malloc(sizeBytes);
        if (!storage)
            throw std::bad_alloc();
        s_sizes[storage] = sizeBytes;
        return storage;
    }

    static void operator delete[](void* storage) {
        if (!storage)
            return;
        auto const* const bytes = static_cast<unsigned char const*>(storage);
        s_released.emplace_back(bytes, bytes + s_sizes[storage]);
        s_sizes.erase(storage);
        std::free(storage);
    }

    /// The bytes of each storage at the moment it was given back.
    static inline std::vector<std::vector<unsigned char>> s_released;
    static inline std::map<void*, std::size_t> s_sizes;
};

class CryptBuffer : public testing::Test {
protected:
    using Secret = TCryptBuffer<WatchedByte>;

    void SetUp() override { WatchedByte::s_released.clear(); }
    void TearDown() override { EXPECT_TRUE(WatchedByte::s_sizes.empty()) << "storage was leaked"; }

    static void fillAll(TBuffer<WatchedByte>& buffer) {
        for (int i = 0; i < buffer.getAllocated(); ++i)
            buffer.getData()[i].value = 0xA5;
    }

    static std::vector<unsigned char> zeros(std::size_t count) {
        return std::vector<unsigned char>(count, 0);
    }

    using Released = std::vector<std::vector<unsigned char>>;
};

TEST_F(CryptBuffer, HookSeesWhatAPlainBufferLeavesBehind) {
    {
        TBuffer<WatchedByte> buffer(2, -1);
        fillAll(buffer);
    }
    EXPECT_EQ((Released{{0xA5, 0xA5}}), WatchedByte::s_released);
}

TEST_F(CryptBuffer, StorageOfBothSizesIsGotAtOnce) {
    // So that a failure to get the larger one leaves nothing that nobody gives back.
    { TBuffer<WatchedByte> const buffer(4, 16); }
    { Secret const secret(16, 4); }
    ASSERT_EQ(2u, WatchedByte::s_released.size());
    EXPECT_EQ(16u, WatchedByte::s_released[0].size());
    EXPECT_EQ(16u, WatchedByte::s_released[1].size());
}

TEST_F(CryptBuffer, ShowsOnlyZerosWhenTheDestructorGivesStorageBack) {
    {
        Secret secret(32, -1);
        fillAll(secret);
    }
    EXPECT_EQ((Released{zeros(32)}), WatchedByte::s_released);
}

TEST_F(CryptBuffer, ClearsTheWholeAllocationAndNotOnlyTheUsedPart) {
    {
        Secret secret(64, -1);
        fillAll(secret);
        secret.setUsed(1);
    }
    EXPECT_EQ((Released{zeros(64)}), WatchedByte::s_released);
}

TEST_F(CryptBuffer, ShowsOnlyZerosWhenGrowthGivesStorageBack) {
    Secret secret(16, -1);
    fillAll(secret);
    secret.setUsed(17);
    EXPECT_EQ((Released{zeros(16)}), WatchedByte::s_released);
    EXPECT_EQ(0xA5, secret.getData()[15].value);
    fillAll(secret);
    secret.ensureAllocated(100);
    EXPECT_EQ((Released{zeros(16), zeros(17)}), WatchedByte::s_released);
    EXPECT_EQ(0xA5, secret.getData()[16].value);
}

TEST_F(CryptBuffer, ShowsOnlyZerosWhenAssignmentGivesStorageBack) {
    Secret target(4, -1);
    fillAll(target);
    Secret source(8, -1);
    fillAll(source);
    target = source;
    EXPECT_EQ((Released{zeros(4)}), WatchedByte::s_released);
    EXPECT_EQ(8, target.getUsed());
}

TEST_F(CryptBuffer, ShowsOnlyZerosWhenAPlainReferenceGrowsIt) {
    Secret secret(4, -1);
    fillAll(secret);
    TBuffer<WatchedByte>& plain = secret;
    plain.setUsed(5);
    EXPECT_EQ((Released{zeros(4)}), WatchedByte::s_released);
}

TEST_F(CryptBuffer, ShowsOnlyZerosWhenTheLastReferenceGoes) {
    yx::P<TBuffer<WatchedByte>> buffer = yx::makeObject<Secret>(4, -1);
    fillAll(*buffer);
    buffer.reset();
    EXPECT_EQ((Released{zeros(4)}), WatchedByte::s_released);
}

TEST_F(CryptBuffer, CopyIsClearedToo) {
    {
        Secret secret(4, -1);
        fillAll(secret);
        Secret const copy = secret;
        EXPECT_EQ(0xA5, copy.getData()[3].value);
    }
    EXPECT_EQ((Released{zeros(4), zeros(4)}), WatchedByte::s_released);
}

TEST_F(CryptBuffer, RefusedSizeLeaksNothing) {
    EXPECT_THROW(Secret(10, -2), yx::CInvalidArgError);
    EXPECT_THROW(TBuffer<WatchedByte>(10, -2), yx::CInvalidArgError);
}

TEST(TCryptBuffer, TakesTheSameSizesAsAPlainBuffer) {
    TCryptBuffer<unsigned char> const empty;
    EXPECT_EQ(0, empty.getUsed());
    TCryptBuffer<unsigned char> const all(32, -1);
    EXPECT_EQ(32, all.getUsed());
    TCryptBuffer<unsigned char> const some(32, 3);
    EXPECT_EQ(3, some.getUsed());
    EXPECT_EQ(32, some.getAllocated());
}

TEST(TConstBufferSlice, ShowsAPartOfTheBufferWithoutACopy) {
    Bytes buffer(5, -1);
    fill(buffer, 10);
    TConstBufferSlice<unsigned char> const whole(&buffer, 0, 5);
    EXPECT_EQ(buffer.getData(), whole.getData());
    EXPECT_EQ(5, whole.getLength());
    TConstBufferSlice<unsigned char> const part(&buffer, 2, 3);
    EXPECT_EQ(12, part.getData()[0]);
    EXPECT_EQ(3, part.getLength());
    buffer.getData()[2] = 77;
    EXPECT_EQ(77, part.getData()[0]);
}

TEST(TConstBufferSlice, OfAnEmptyBufferIsEmpty) {
    Bytes const buffer;
    TConstBufferSlice<unsigned char> const slice(&buffer, 0, 0);
    EXPECT_EQ(nullptr, slice.getData());
    EXPECT_EQ(0, slice.getLength());
}

} // namespace

} // namespace buffer_test
