#include "host/system/rate_limit.h"

#include <vector>

#include <gtest/gtest.h>

#include "host/system/transfer_meter.h"

namespace kelm::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

/// Time that passes only while somebody waits.
class TimeOfTest {
public:
    RateLimit::Clock clock() {
        return {[this] { return m_now; },
                [this](nanoseconds time) {
                    m_waits.push_back(time);
                    m_now += time;
                    if (m_onWait)
                        m_onWait();
                }};
    }

    void pass(nanoseconds time) { m_now += time; }
    nanoseconds now() const { return m_now; }
    std::vector<nanoseconds> const& waits() const { return m_waits; }
    void onWait(std::function<void()> action) { m_onWait = std::move(action); }

private:
    nanoseconds m_now{std::chrono::hours{5}};
    std::vector<nanoseconds> m_waits;
    std::function<void()> m_onWait;
};

TEST(RateLimit, LetsWorkWaitUntilItsRateIsThatOfTheLimit) {
    TimeOfTest time;
    RateLimit limit(1000, nullptr, time.clock());
    nanoseconds const start = time.now();
    for (int i = 0; i < 40; ++i)
        limit.take(50);
    EXPECT_NEAR(std::chrono::duration<double>(time.now() - start).count(), 2.0, 0.001);
}

TEST(RateLimit, WaitsForALargePieceInShortPauses) {
    TimeOfTest time;
    RateLimit limit(1000, nullptr, time.clock());
    limit.take(350);
    ASSERT_EQ(time.waits().size(), 4U);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(time.waits()[static_cast<std::size_t>(i)], milliseconds{100});
    EXPECT_NEAR(std::chrono::duration<double>(time.waits()[3]).count(), 0.05, 0.001);
}

TEST(RateLimit, KeepsWhatWasNotUsedForATenthOfASecond) {
    TimeOfTest time;
    RateLimit limit(1000, nullptr, time.clock());
    time.pass(std::chrono::hours{1});
    limit.take(100);
    EXPECT_TRUE(time.waits().empty());
    limit.take(100);
    EXPECT_EQ(time.waits(), std::vector<nanoseconds>{milliseconds{100}});
}

TEST(RateLimit, GoesOnWaitingWhereAWaitEndsEarly) {
    TimeOfTest time;
    RateLimit::Clock clock = time.clock();
    auto const wait = clock.wait;
    clock.wait = [wait](nanoseconds asked) { wait(asked / 2 + nanoseconds{1}); };
    RateLimit limit(1000, nullptr, clock);
    nanoseconds const start = time.now();
    limit.take(100);
    EXPECT_NEAR(std::chrono::duration<double>(time.now() - start).count(), 0.1, 0.001);
    EXPECT_GT(time.waits().size(), 2U);
}

TEST(RateLimit, ACancelledWaitEndsAfterOnePause) {
    TimeOfTest time;
    CancelFlag cancel;
    RateLimit limit(1, &cancel, time.clock());
    time.onWait([&cancel] { cancel.set(); });
    EXPECT_THROW(limit.take(1000000), CancelledError);
    EXPECT_EQ(time.waits(), std::vector<nanoseconds>{milliseconds{100}});
}

TEST(RateLimit, TheClockOfTheMachineGoesForward) {
    RateLimit::Clock const clock = RateLimit::clockOfMachine();
    nanoseconds const start = clock.now();
    clock.wait(nanoseconds{1});
    EXPECT_GE(clock.now(), start);
}

TEST(TransferMeter, CountsAndHoldsToTheRate) {
    TimeOfTest time;
    TransferMeter meter;
    meter.addRead(5000);
    EXPECT_TRUE(time.waits().empty());
    meter.setLimit(RateLimit(1000, nullptr, time.clock()));
    meter.addRead(50);
    meter.addStored(7);
    EXPECT_EQ(time.waits().size(), 1U);
    EXPECT_EQ(meter.getReadBytes(), 5050);
    EXPECT_EQ(meter.getStoredBytes(), 7);
}

} // namespace
} // namespace kelm::host
