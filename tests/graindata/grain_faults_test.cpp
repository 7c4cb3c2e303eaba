#include <functional>

#include "kelm/graindata/grain.h"
#include "tests/graindata/grain_fixture.h"

namespace graindata_test {

namespace {

using kelm::CVMDKGrain;

/// Each call of the stream fails once, torn writes included; then the cause is gone and what failed
/// is done again.
class GrainFaults : public GrainTest {
protected:
    /// `prepare` makes a grain in its state before `action`; `check` looks at it after the repeat.
    /// `failed` looks at it in between.
    struct Scenario {
        std::function<yx::P<CVMDKGrain>()> prepare;
        std::function<void(CVMDKGrain&)> action;
        std::function<void(CVMDKGrain&)> failed;
        std::function<void(CVMDKGrain&)> check;
    };

    /// The number of calls that the action makes.
    int failEachCall(Scenario const& scenario) {
        for (int n = 0;; ++n) {
            SCOPED_TRACE(testing::Message() << "call " << n);
            yx::P<CVMDKGrain> const grain = scenario.prepare();
            stream->setTornWrites(true);
            bool const failed = failsAtCall(n, [&] { scenario.action(*grain); });
            if (!failed)
                return n;
            scenario.failed(*grain);
            scenario.action(*grain);
            scenario.check(*grain);
        }
    }

    bool failsAtCall(int n, std::function<void()> const& action) {
        int calls = 0;
        auto const isNext = [&calls, n] { return calls++ == n; };
        stream->setSeekFault(isNext);
        stream->setFault([isNext](Operation const&) { return isNext(); });
        bool failed = false;
        try {
            action();
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(error.getIOCode(), yx::CIOError::IOFailure);
            EXPECT_EQ(error.getMessage(), "Scripted failure.");
            failed = true;
        }
        stream->setSeekFault({});
        stream->setFault({});
        return failed;
    }

    yx::P<CVMDKGrain> openStored(Kind kind, Bytes const& plain, __int64 spareSectors = 0) {
        putGrain(kind, plain, 0, spareSectors);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        return grain;
    }

    Bytes const oldPlain = textPattern(kGrainSizeBytes, 1);
    Bytes const newPlain = pattern(kGrainSizeBytes, 2);
};

TEST_F(GrainFaults, ReadLeavesNothingLoadedAndSucceedsAgain) {
    struct {
        Kind kind;
        int calls; // one seek, and the reads
    } const cases[] = {
        {kPlain, 2}, {kEnciphered, 2}, {kCompressed, 3}, {kCompressedAndEnciphered, 3}};
    for (auto const& test : cases) {
        int const calls = failEachCall({
            [&, this] { return openStored(test.kind, oldPlain); },
            [](CVMDKGrain& grain) { read(grain, 10); },
            [](CVMDKGrain& grain) { EXPECT_EQ(grain.getPosition(), 0); },
            [this](CVMDKGrain& grain) { EXPECT_EQ(readAll(grain), oldPlain); },
        });
        EXPECT_EQ(calls, test.calls) << test.kind;
    }
}

TEST_F(GrainFaults, PreparedReadSucceedsAgain) {
    for (Kind const kind : kAllKinds) {
        Bytes prepared;
        int const calls = failEachCall({
            [&, this] { return openStored(kind, oldPlain); },
            [&](CVMDKGrain& grain) { prepared = readPrepared(grain); },
            [](CVMDKGrain& grain) { EXPECT_EQ(grain.getPosition(), 0); },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(kind.compressed ? takeApart(prepared, kGrainSizeBytes).plain : prepared,
                          oldPlain);
                EXPECT_EQ(grain.getPosition(), kGrainSizeBytes);
                EXPECT_EQ(readAll(grain), oldPlain);
            },
        });
        EXPECT_EQ(calls, kind.compressed ? 3 : 2) << kind;
    }
}

TEST_F(GrainFaults, PartialWriteThatCannotLoadTheRestChangesNothing) {
    Bytes expected = oldPlain;
    std::copy_n(newPlain.begin(), 100, expected.begin());
    for (Kind const kind : kAllKinds) {
        int const calls = failEachCall({
            [&, this] { return openStored(kind, oldPlain); },
            [this](CVMDKGrain& grain) { write(grain, slice(newPlain, 0, 100)); },
            [](CVMDKGrain& grain) {
                EXPECT_EQ(grain.getPosition(), 0);
                grain.flushChangesToStream();
            },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(plainInFile(kind), oldPlain);
                EXPECT_EQ(readAll(grain), expected);
                grain.flushChangesToStream();
                EXPECT_EQ(plainInFile(kind), expected);
            },
        });
        EXPECT_EQ(calls, kind.compressed ? 3 : 2) << kind;
    }
}

TEST_F(GrainFaults, FlushOverTheOldPlaceKeepsTheChangesAndSucceedsAgain) {
    for (Kind const kind : kAllKinds) {
        int const calls = failEachCall({
            [&, this] {
                yx::P<CVMDKGrain> const grain = openStored(kind, oldPlain, 10);
                write(*grain, newPlain);
                return grain;
            },
            [](CVMDKGrain& grain) { grain.flushChangesToStream(); },
            [this](CVMDKGrain& grain) {
                EXPECT_TRUE(grain.isGrainWrittenAndIndependentOfParent());
                EXPECT_EQ(readAll(grain), newPlain);
            },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(plainInFile(kind), newPlain);
                EXPECT_EQ(readAll(grain), newPlain);
            },
        });
        EXPECT_EQ(calls, 2) << kind;
    }
}

TEST_F(GrainFaults, FlushOfANewGrainKeepsTheChangesAndSucceedsAgain) {
    for (Kind const kind : kAllKinds) {
        int const calls = failEachCall({
            [&, this] {
                allocator->setSlot(0, {});
                yx::P<CVMDKGrain> const grain = makeGrain(kind);
                openGrain(*grain);
                write(*grain, newPlain);
                return grain;
            },
            [](CVMDKGrain& grain) { grain.close(); },
            [this](CVMDKGrain& grain) {
                EXPECT_TRUE(grain.isOpen());
                EXPECT_EQ(grain.getGrainStartPositionSectors(), 0);
                EXPECT_TRUE(grain.isGrainWrittenAndIndependentOfParent());
                EXPECT_EQ(readAll(grain), newPlain);
            },
            [&, this](CVMDKGrain& grain) {
                EXPECT_FALSE(grain.isOpen());
                EXPECT_EQ(plainInFile(kind), newPlain);
            },
        });
        EXPECT_GE(calls, 2) << kind;
    }
}

TEST_F(GrainFaults, MoveOfAnOutgrownGrainLeavesTheOldSlotToTheTableAndSucceedsAgain) {
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered}) {
        int const calls = failEachCall({
            [&, this] {
                yx::P<CVMDKGrain> const grain = openStored(kind, zeros(kGrainSizeBytes));
                write(*grain, newPlain);
                return grain;
            },
            [](CVMDKGrain& grain) { grain.flushChangesToStream(); },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(grain.getGrainStartPositionSectors(), 0);
                EXPECT_TRUE(grain.isGrainWrittenAndIndependentOfParent());
                EXPECT_EQ(readAll(grain), newPlain);
                EXPECT_NE(allocator->slotOf(0).posSectors, 0);
                EXPECT_EQ(plainInFile(kind), zeros(kGrainSizeBytes)) << "as the table has it";
            },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(plainInFile(kind), newPlain);
                EXPECT_EQ(grain.getGrainStartPositionSectors(), allocator->slotOf(0).posSectors);
                EXPECT_EQ(readAll(grain), newPlain);
            },
        });
        EXPECT_GE(calls, 2) << kind;
    }
}

TEST_F(GrainFaults, OpeningAnotherGrainWaitsForTheFlush) {
    for (Kind const kind : kAllKinds) {
        int const calls = failEachCall({
            [&, this] {
                yx::P<CVMDKGrain> const grain = openStored(kind, oldPlain, 10);
                write(*grain, newPlain);
                return grain;
            },
            [](CVMDKGrain& grain) { grain.open(5, 15, 0, 0); },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(grain.getGrainStartPositionSectors(), allocator->slotOf(0).posSectors);
                EXPECT_EQ(readAll(grain), newPlain);
            },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(grain.getGrainStartPositionSectors(), 0);
                EXPECT_EQ(plainInFile(kind), newPlain);
            },
        });
        EXPECT_EQ(calls, 2) << kind;
    }
}

TEST_F(GrainFaults, PreparedWriteSucceedsAgain) {
    for (Kind const kind : kAllKinds) {
        Buffer const prepared = toBuffer(preparedForm(kind, newPlain, 10));
        int const calls = failEachCall({
            [&, this] { return openStored(kind, oldPlain); },
            [&](CVMDKGrain& grain) { grain.writePreparedGrainData(prepared); },
            [](CVMDKGrain& grain) { EXPECT_EQ(grain.getPosition(), 0); },
            [&, this](CVMDKGrain& grain) {
                EXPECT_EQ(grain.getPosition(), kGrainSizeBytes);
                EXPECT_EQ(plainInFile(kind), newPlain);
                EXPECT_EQ(readAll(grain), newPlain);
            },
        });
        EXPECT_GE(calls, 2) << kind;
    }
}

TEST_F(GrainFaults, RefusedAllocationKeepsTheChangesAndSucceedsAgain) {
    for (Kind const kind : kAllKinds) {
        allocator->setSlot(0, {});
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        write(*grain, newPlain);
        allocator->setFailing(true);
        for (auto const& action : {std::function<void()>([&] { grain->flushChangesToStream(); }),
                                   std::function<void()>([&] { grain->close(); }),
                                   std::function<void()>([&] { grain->open(1, 11, 0, 0); })}) {
            EXPECT_TRUE(
                throwsIOError(yx::CIOError::NoSpace, "Scripted allocation failure.", {}, action));
            EXPECT_EQ(readAll(*grain), newPlain);
        }
        grain->seek(0);
        EXPECT_THROW(readPrepared(*grain), yx::CIOError);
        allocator->setFailing(false);
        grain->close();
        EXPECT_EQ(plainInFile(kind), newPlain);
    }
}

TEST_F(GrainFaults, ZerosThatOutgrewTheirSlotAreStoredAfterARefusedAllocation) {
    // Level 0 stores, so that even zeros need more than the slot. The table still names the old
    // data: to drop the zeros as those of an absent grain would bring them back.
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered}) {
        putGrain(kind, concat({{1}, zeros(kGrainSizeBytes - 1)}));
        yx::P<CVMDKGrain> const grain = makeGrain(kind, yx::IIOStream::ReadWrite, 0);
        openGrain(*grain);
        write(*grain, zeros(kGrainSizeBytes));
        allocator->setFailing(true);
        EXPECT_THROW(grain->flushChangesToStream(), yx::CIOError);
        EXPECT_EQ(grain->getGrainStartPositionSectors(), 0);
        allocator->setFailing(false);
        grain->flushChangesToStream();
        EXPECT_EQ(plainInFile(kind), zeros(kGrainSizeBytes));
        // A grain that is absent for good drops its zeros as ever.
        grain->open(1, 11, 0, 0);
        write(*grain, zeros(kGrainSizeBytes));
        grain->close();
        EXPECT_EQ(allocator->slotOf(1).posSectors, 0);
        allocator->allocations().clear();
    }
}

TEST_F(GrainFaults, PreparedDataThatOutgrewTheirSlotLeaveTheOldGrainAfterARefusedAllocation) {
    provider = yx::makeObject<FakeDataProvider>();
    Bytes const plain = zeros(kGrainSizeBytes);
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered}) {
        yx::P<CVMDKGrain> const grain = openStored(kind, plain);
        Buffer const prepared = toBuffer(preparedForm(kind, newPlain, 10));
        allocator->setFailing(true);
        EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Scripted allocation failure.", {},
                                  [&] { grain->writePreparedGrainData(prepared); }));
        EXPECT_EQ(grain->getGrainStartPositionSectors(), 0);
        EXPECT_EQ(grain->getPosition(), 0);

        // The tables still name the old data, and so does the grain.
        EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent());
        EXPECT_EQ(takeApart(readPrepared(*grain), kGrainSizeBytes).plain, plain);
        EXPECT_EQ(readAll(*grain), plain);
        grain->seek(0);
        EXPECT_EQ(grain->makeIndependentOfParent(), kGrainSizeBytes);
        EXPECT_EQ(provider->requests(), Requests());

        allocator->setFailing(false);
        grain->seek(5);
        write(*grain, {1, 2, 3});
        grain->flushChangesToStream();
        EXPECT_EQ(plainInFile(kind), concat({zeros(5), {1, 2, 3}, zeros(kGrainSizeBytes - 8)}));
        grain->seek(0);
        grain->writePreparedGrainData(prepared);
        EXPECT_EQ(plainInFile(kind), newPlain);
        allocator->allocations().clear();
    }
}

TEST_F(GrainFaults, AbandonedSlotIsForgottenWithItsGrain) {
    yx::P<CVMDKGrain> const grain = openStored(kCompressed, oldPlain);
    allocator->setFailing(true);
    EXPECT_THROW(grain->writePreparedGrainData(toBuffer(preparedForm(kCompressed, newPlain, 10))),
                 yx::CIOError);
    grain->open(1, 11, 0, 0);
    EXPECT_FALSE(grain->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(readAll(*grain), zeros(kGrainSizeBytes));
}

TEST_F(GrainFaults, FailureOfTheProviderPassesAndSucceedsAgain) {
    for (Kind const kind : kAllKinds) {
        provider = yx::makeObject<FakeDataProvider>();
        provider->setPreparedGrain(preparedForm(kind, newPlain, 13));
        allocator->setSlot(3, {});
        allocator->allocations().clear();
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain, 3);
        provider->setFailing(true);
        for (auto const& action :
             {std::function<void()>([&] { read(*grain, 10); }),
              std::function<void()>([&] { write(*grain, {1}); }),
              std::function<void()>([&] { readPrepared(*grain); }),
              std::function<void()>([&] { grain->isGrainWritten(); }),
              std::function<void()>([&] { grain->makeIndependentOfParent(); })}) {
            EXPECT_TRUE(
                throwsIOError(yx::CIOError::IOFailure, "Scripted provider failure.", {}, action));
            EXPECT_EQ(grain->getPosition(), 0);
            EXPECT_FALSE(grain->isGrainWrittenAndIndependentOfParent());
        }
        EXPECT_EQ(allocator->allocations(), Allocations());
        provider->setFailing(false);
        EXPECT_EQ(read(*grain, 10), FakeDataProvider::bytesAt(13 * 4096, 10));
        grain->seek(0);
        grain->makeIndependentOfParent();
        EXPECT_EQ(plainInFile(kind, 3), newPlain);
    }
}

} // namespace

} // namespace graindata_test
