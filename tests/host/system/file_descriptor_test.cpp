#include "host/system/file_descriptor.h"

#include <fstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "host/system/cancel.h"

namespace test_support {
namespace file_descriptor_test {
namespace {

using kelm::host::CancelFlag;

/// Whether a thread of this program waits in the system.
bool isWaiting(pid_t thread) {
    std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string const text{std::istreambuf_iterator<char>(file), {}};
    // The name before the state may hold anything.
    return text.substr(text.rfind(')') + 1, 2) == " S";
}

TEST(WaitUntilReady, NoticesAFlagThatWasSetBeforeTheEndCame) {
    constexpr int kRounds = 20;
    for (int round = 0; round < kRounds; ++round) {
        int ends[2];
        ASSERT_EQ(0, ::pipe(ends));
        CancelFlag flag;
        pid_t const waiting = ::gettid();
        std::thread other([&] {
            while (!isWaiting(waiting))
                std::this_thread::yield();
            flag.set();
            ::close(ends[1]);
        });
        EXPECT_THROW(kelm::host::waitUntilReady(ends[0], POLLIN, &flag),
                     kelm::host::CancelledError);
        other.join();
        ::close(ends[0]);
    }
}

} // namespace
} // namespace file_descriptor_test
} // namespace test_support
