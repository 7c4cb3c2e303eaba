#include <functional>

#include "kelm/graindata/grain.h"
#include "tests/graindata/grain_fixture.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/fake_cipher.h"

namespace graindata_test {

namespace {

using kelm::CVMDKGrain;

constexpr int kGrainCount = 4;

/// What the steady road costs in memory: nothing, once the buffers have grown.
class GrainMemory : public GrainTest {
protected:
    GrainMemory() {
        // The fakes have their memory beforehand.
        stream->operations().reserve(10000);
        stream->content().reserve(10000000);
        allocator->allocations().reserve(1000);
        for (int i = 0; i < kGrainCount; ++i)
            allocator->setSlot(i, {});
        // What the cipher itself needs is its own affair.
        cipher = yx::makeObject<test_support::FakeCipher>(16);
    }

    /// Allocations of `action` over all grains and contents, after two rounds to warm up.
    long long countAllocations(CVMDKGrain& grain,
                               std::function<void(CVMDKGrain&, Bytes const&)> const& action) {
        long long count = 0;
        for (int round = 0; round < 3; ++round) {
            for (int i = 0; i < kGrainCount; ++i) {
                stream->operations().clear();
                test_support::AllocationCounter const counter;
                openGrain(grain, i);
                action(grain, m_contents[i]);
                grain.flushChangesToStream();
                count = round < 2 ? 0 : count + counter.count();
            }
        }
        return count;
    }

    Bytes m_target = Bytes(kGrainSizeBytes);
    Bytes const m_contents[kGrainCount] = {zeros(kGrainSizeBytes), textPattern(kGrainSizeBytes, 1),
                                           pattern(kGrainSizeBytes, 2), sparse(kGrainSizeBytes, 3)};
};

TEST_F(GrainMemory, CounterSeesTheLibrariesAllocate) {
    test_support::AllocationCounter const counter;
    Buffer const buffer(100, -1);
    EXPECT_GE(counter.count(), 1);
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    EXPECT_GE(counter.count(), 3);
}

TEST_F(GrainMemory, NothingIsAllocatedOnTheRoadOfAWriteOrARead) {
    for (Kind const kind : kAllKinds) {
        SCOPED_TRACE(testing::Message() << kind);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        auto const writeNew = [this](CVMDKGrain& open, Bytes const& content) {
            open.write(content.data(), kGrainSizeBytes);
            allocator->setSlot(0, {});
        };
        EXPECT_EQ(countAllocations(*grain, writeNew), 0);
        auto const rewritePart = [](CVMDKGrain& open, Bytes const& content) {
            open.seek(100);
            open.write(content.data(), 1000);
        };
        EXPECT_EQ(countAllocations(*grain, rewritePart), 0);
        auto const readWhole = [this](CVMDKGrain& open, Bytes const&) {
            open.read(m_target.data(), kGrainSizeBytes);
        };
        EXPECT_EQ(countAllocations(*grain, readWhole), 0);
    }
}

TEST_F(GrainMemory, NothingIsAllocatedForPreparedGrains) {
    for (Kind const kind : kAllKinds) {
        SCOPED_TRACE(testing::Message() << kind);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        for (int i = 0; i < kGrainCount; ++i) {
            openGrain(*grain, i);
            write(*grain, m_contents[i]);
        }
        Buffer prepared;
        auto const copy = [&prepared](CVMDKGrain& open, Bytes const&) {
            open.readPreparedGrainData(prepared);
            open.seek(0);
            open.writePreparedGrainData(prepared);
        };
        EXPECT_EQ(countAllocations(*grain, copy), 0);

        for (int i = 0; i < kGrainCount; ++i)
            allocator->setSlot(i, {});
        auto const readZeros = [&prepared](CVMDKGrain& open, Bytes const&) {
            open.readPreparedGrainData(prepared);
        };
        EXPECT_EQ(countAllocations(*grain, readZeros), 0);
    }
}

TEST_F(GrainMemory, NothingIsAllocatedByThePreparer) {
    kelm::CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Buffer contents[kGrainCount];
    for (int i = 0; i < kGrainCount; ++i)
        contents[i] = toBuffer(m_contents[i]);
    Buffer record;
    Buffer plain;
    auto const roundTrip = [&] {
        for (Buffer& content : contents) {
            preparer.prepareGrainData(&content, 1, &record);
            preparer.unprepareGrainData(&record, &plain);
        }
    };
    roundTrip();
    test_support::AllocationCounter const counter;
    roundTrip();
    EXPECT_EQ(counter.count(), 0);
}

TEST_F(GrainMemory, AbsurdGrainSizeTakesNoMemoryUntilItIsRead) {
    test_support::AllocationCounter const counter;
    auto const grain = yx::makeObject<CVMDKGrain>(
        stream.get(), yx::IIOStream::ReadOnly, kelm::CVMDKDataPreparer::kMaxGrainSizeSectors,
        allocator.get(), true, 1, nullptr, nullptr, yx::TCryptBuffer<unsigned char>(), Buffer());
    EXPECT_LT(counter.count(), 20) << "objects only, no buffer of the grain's size";
}

} // namespace

} // namespace graindata_test
