#include "host/system/progress_lines.h"

#include <string>

#include <gtest/gtest.h>

namespace kelm::host {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;

TEST(ProgressLines, AreWrittenOnceASecondAndAtTheEnd) {
    nanoseconds now{0};
    std::string text;
    ProgressLines lines(
        "import", [&text](std::string const& line) { text += line; }, [&now] { return now; });
    ProgressCallback const report = lines.callback();
    for (int step = 1; step <= 25; ++step) {
        now += milliseconds{100};
        report(step * 100, 5000);
    }
    report(5000, 5000);
    EXPECT_EQ(text, "{\"progress\":\"import\",\"doneBytes\":1000,\"totalBytes\":5000,"
                    "\"bytesPerSecond\":1000,\"secondsLeft\":4}\n"
                    "{\"progress\":\"import\",\"doneBytes\":2000,\"totalBytes\":5000,"
                    "\"bytesPerSecond\":1000,\"secondsLeft\":3}\n"
                    "{\"progress\":\"import\",\"doneBytes\":5000,\"totalBytes\":5000,"
                    "\"bytesPerSecond\":2000,\"secondsLeft\":0}\n");
}

TEST(ProgressLines, SayWhatIsNotKnown) {
    EXPECT_EQ(formatProgressLine("copy", 10, -1, 2.0),
              "{\"progress\":\"copy\",\"doneBytes\":10,\"totalBytes\":null,\"bytesPerSecond\":5,"
              "\"secondsLeft\":null}");
    EXPECT_EQ(formatProgressLine("copy", 0, 10, 1.0),
              "{\"progress\":\"copy\",\"doneBytes\":0,\"totalBytes\":10,\"bytesPerSecond\":0,"
              "\"secondsLeft\":null}");
    EXPECT_EQ(formatProgressLine("copy", 10, 10, 0.0),
              "{\"progress\":\"copy\",\"doneBytes\":10,\"totalBytes\":10,\"bytesPerSecond\":null,"
              "\"secondsLeft\":0}");
}

} // namespace
} // namespace kelm::host
