#include "host/system/idle_io.h"

#include <thread>

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace kelm::host {
namespace {

constexpr int kIdleClass = 3;

long classOfThisThread() {
    constexpr int kWhoProcess = 1;
    constexpr int kClassShift = 13;
    return ::syscall(SYS_ioprio_get, kWhoProcess, 0) >> kClassShift;
}

TEST(IdleIO, HoldsForTheThreadAndThoseThatItStarts) {
    long before = -1;
    long own = -1;
    long ofStarted = -1;
    // In a thread, since there is no way back.
    std::thread([&] {
        before = classOfThisThread();
        useIdleIO();
        own = classOfThisThread();
        std::thread([&] { ofStarted = classOfThisThread(); }).join();
    }).join();
    EXPECT_NE(before, kIdleClass);
    EXPECT_EQ(own, kIdleClass);
    EXPECT_EQ(ofStarted, kIdleClass);
    EXPECT_EQ(classOfThisThread(), before);
}

} // namespace
} // namespace kelm::host
