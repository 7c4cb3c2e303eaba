// How ranges of devices become zeros: with devices that can give space back, cannot, or lie.

#include "host/transfer/device_zeroing.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace test_support {
namespace {

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::DeviceZeroing;
using kelm::host::TargetZeros;
using kelm::host::ZeroableDevice;

constexpr __int64 kUnit = DeviceZeroing::kPunchUnitBytes;
constexpr __int64 kLook = DeviceZeroing::kLookBytes;

/// A device in memory, which outlives those who use it.
struct DeviceState {
    Bytes content;
    bool canPunch = true;
    bool canRead = true;

    /// Says that it has given a range back, and keeps the content.
    bool lies = false;

    /// What it was asked for: "punch", "read" or "write", with the range in units.
    std::vector<std::string> calls;
    std::function<void()> onRead = [] {};

    __int64 countWrittenBytes = 0;
};

class DeviceInMemory : public ZeroableDevice {
public:
    explicit DeviceInMemory(DeviceState& state) : m_state(state) {}

    bool tryPunch(__int64 positionBytes, __int64 bytes) override {
        EXPECT_EQ(0, positionBytes % kUnit);
        EXPECT_EQ(0, bytes % kUnit);
        EXPECT_GT(bytes, 0);
        EXPECT_LE(bytes, DeviceZeroing::kPunchStepBytes);
        log("punch", positionBytes, bytes);
        if (m_state.canPunch && !m_state.lies)
            clear(positionBytes, bytes);
        return m_state.canPunch;
    }

    bool tryRead(__int64 positionBytes, unsigned char* data, int bytes) override {
        m_state.onRead();
        log("read", positionBytes, bytes);
        if (m_state.canRead)
            std::copy_n(m_state.content.begin() + positionBytes, bytes, data);
        return m_state.canRead;
    }

    void writeZeros(__int64 positionBytes, int bytes) override {
        log("write", positionBytes, bytes);
        clear(positionBytes, bytes);
        m_state.countWrittenBytes += bytes;
    }

private:
    void clear(__int64 positionBytes, __int64 bytes) {
        std::fill_n(m_state.content.begin() + positionBytes, bytes, static_cast<unsigned char>(0));
    }

    void log(char const* call, __int64 positionBytes, __int64 bytes) {
        m_state.calls.push_back(call + (' ' + std::to_string(positionBytes)) + ' ' +
                                std::to_string(bytes));
    }

    DeviceState& m_state;
};

using Calls = std::vector<std::string>;

class DeviceZeroingTest : public testing::Test {
protected:
    /// Makes a range zeros on a device that is full of data but where `free` says, and looks that
    /// nothing else changed.
    TargetZeros zero(__int64 positionBytes, __int64 bytes,
                     std::vector<std::pair<__int64, __int64>> const& freeRanges = {},
                     __int64 sizeBytes = 8 * kLook) {
        state.content = pattern(static_cast<std::size_t>(sizeBytes), 5);
        for (auto const& [start, end] : freeRanges)
            std::fill(state.content.begin() + start, state.content.begin() + end,
                      static_cast<unsigned char>(0));
        Bytes expected = state.content;
        std::fill_n(expected.begin() + positionBytes, bytes, static_cast<unsigned char>(0));
        DeviceZeroing zeroing(std::make_unique<DeviceInMemory>(state), nullptr);
        zeroing.zero(positionBytes, bytes);
        EXPECT_TRUE(sameBytes(expected, state.content));
        TargetZeros const done = zeroing.getDone();
        EXPECT_EQ(bytes, done.punchedBytes + done.leftBytes + done.writtenBytes);
        EXPECT_EQ(state.countWrittenBytes, done.writtenBytes);
        return done;
    }

    DeviceState state;
};

TEST_F(DeviceZeroingTest, GivesBackWhatItCanAndLooksAtIt) {
    TargetZeros const done = zero(kLook, 2 * kLook);
    EXPECT_EQ(2 * kLook, done.punchedBytes);
    EXPECT_EQ((Calls{"punch 1048576 2097152", "read 1048576 1048576", "read 2097152 1048576"}),
              state.calls);
}

TEST_F(DeviceZeroingTest, WritesTheEndsThatAreNoWholeUnits) {
    TargetZeros const done = zero(kUnit - 512, 2 * kUnit + 1024);
    EXPECT_EQ(2 * kUnit, done.punchedBytes);
    EXPECT_EQ(1024, done.writtenBytes);
    EXPECT_EQ((Calls{"punch 4096 8192", "read 3584 512", "write 3584 512", "read 4096 8192",
                     "write 12288 512"}),
              state.calls);
}

TEST_F(DeviceZeroingTest, GivesNothingBackWithinAUnit) {
    TargetZeros const done = zero(512, kUnit - 512);
    EXPECT_EQ(kUnit - 512, done.writtenBytes);
    EXPECT_EQ((Calls{"read 512 3584", "write 512 3584"}), state.calls);
}

TEST_F(DeviceZeroingTest, WritesWhereADeviceOnlySaidThatItDid) {
    state.lies = true;
    TargetZeros const done = zero(0, 3 * kLook, {{kLook, 2 * kLook}});
    EXPECT_EQ(kLook, done.punchedBytes);
    EXPECT_EQ(2 * kLook, done.writtenBytes);
    EXPECT_EQ(1, std::count(state.calls.begin(), state.calls.end(), "punch 0 3145728"));
}

TEST_F(DeviceZeroingTest, ADeviceThatLiedIsNotAskedAgain) {
    state.lies = true;
    constexpr __int64 kStep = DeviceZeroing::kPunchStepBytes;
    zero(kStep - kLook, 2 * kLook, {}, kStep + kLook);
    EXPECT_EQ((Calls{"punch 66060288 1048576", "read 66060288 1048576", "write 66060288 1048576",
                     "read 67108864 1048576", "write 67108864 1048576"}),
              state.calls);
}

TEST_F(DeviceZeroingTest, WhereNothingIsGivenBackOnlyDataAreOverwritten) {
    state.canPunch = false;
    TargetZeros const done = zero(0, 8 * kLook, {{0, 3 * kLook}, {5 * kLook, 8 * kLook}});
    // One step more is written than looked at, behind the first that has data.
    EXPECT_EQ(6 * kLook, done.leftBytes);
    EXPECT_EQ(2 * kLook, done.writtenBytes);
    EXPECT_EQ(0, done.punchedBytes);
    EXPECT_EQ(1, std::count_if(state.calls.begin(), state.calls.end(),
                               [](std::string const& call) { return call.starts_with("punch"); }));
}

TEST_F(DeviceZeroingTest, ADeviceFullOfDataIsReadRarely) {
    state.canPunch = false;
    constexpr __int64 kSteps = 96;
    TargetZeros const done = zero(0, kSteps * kLook, {}, kSteps * kLook);
    EXPECT_EQ(kSteps * kLook, done.writtenBytes);
    // Behind each look so many steps are written blindly: 1, 2, 4, 8, 16, 32, 32.
    EXPECT_EQ(7, std::count_if(state.calls.begin(), state.calls.end(),
                               [](std::string const& call) { return call.starts_with("read"); }));
}

TEST_F(DeviceZeroingTest, ADeviceThatCannotBeReadIsWritten) {
    state.canPunch = false;
    state.canRead = false;
    TargetZeros const done = zero(0, 4 * kLook, {{0, 4 * kLook}});
    EXPECT_EQ(4 * kLook, done.writtenBytes);
    EXPECT_EQ("read 0 1048576", state.calls.at(1));
    EXPECT_EQ(1, std::count_if(state.calls.begin(), state.calls.end(),
                               [](std::string const& call) { return call.starts_with("read"); }));
}

TEST_F(DeviceZeroingTest, WhatWasGivenBackAndCannotBeReadIsWritten) {
    state.canRead = false;
    TargetZeros const done = zero(0, kLook);
    EXPECT_EQ(kLook, done.writtenBytes);
}

TEST_F(DeviceZeroingTest, CanBeCancelled) {
    CancelFlag cancel;
    state.content = pattern(static_cast<std::size_t>(2 * kLook), 5);
    state.onRead = [&] { cancel.set(); };
    DeviceZeroing zeroing(std::make_unique<DeviceInMemory>(state), &cancel);
    EXPECT_THROW(zeroing.zero(0, 2 * kLook), CancelledError);
    EXPECT_EQ((Calls{"punch 0 2097152", "read 0 1048576"}), state.calls);
}

} // namespace
} // namespace test_support
