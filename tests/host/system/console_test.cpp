// What a host shows and asks: sizes, progress, passwords, signals.

#include <csignal>
#include <cstdlib>
#include <thread>

#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "host/system/cancel.h"
#include "host/system/password.h"
#include "host/system/progress.h"
#include "host/system/size_text.h"
#include "tests/host/host_fixture.h"
#include "tests/support/signals.h"
#include "tests/support/terminal_play.h"

namespace test_support {
namespace {

using namespace kelm::host;

TEST(SizeText, SizesAreRead) {
    struct Case {
        char const* text;
        __int64 sizeBytes;
    };
    for (Case const& c : {
             Case{"0", 0},
             Case{"65536", 65536},
             Case{"64K", 65536},
             Case{"64k", 65536},
             Case{"512M", 536870912},
             Case{"40G", 42949672960},
             Case{"2T", 2199023255552},
             Case{"007", 7},
             Case{"9223372036854775807", 9223372036854775807},
             Case{"8388607T", 9223370937343148032},
         })
        EXPECT_EQ(c.sizeBytes, parseSize(c.text)) << c.text;
}

TEST(SizeText, EverythingElseIsRefused) {
    for (std::string const text :
         {"", "G", "-1", "+1", " 1", "1 ", "1.5G", "1GB", "1 G", "0x10", "1P", "KK",
          "9223372036854775808", "8388608T", "99999999999999999999", "\xC2\xB2"})
        EXPECT_TRUE(throwsError("Invalid size: '" + text + "'", {}, [&] { parseSize(text); }))
            << text;
}

TEST(SizeText, SizesAreShown) {
    EXPECT_EQ("0 bytes", formatSize(0));
    EXPECT_EQ("1023 bytes", formatSize(1023));
    EXPECT_EQ("1.0 KiB", formatSize(1024));
    EXPECT_EQ("1.5 KiB", formatSize(1536));
    EXPECT_EQ("1.0 MiB", formatSize(1048575));
    EXPECT_EQ("40.0 GiB", formatSize(42949672960));
    EXPECT_EQ("2.0 TiB", formatSize(2199023255552));
    EXPECT_EQ("8388608.0 TiB", formatSize(9223372036854775807));
}

TEST(SizeText, ARangeIsShownByItsFirstAndItsLast) {
    EXPECT_EQ("65536-131071", formatRange(65536, 131072));
    EXPECT_EQ("0-0", formatRange(0, 1));
    EXPECT_EQ("7-7", formatRange(7, 7));
}

TEST(Progress, LineTellsPartRateAndTimeLeft) {
    constexpr __int64 kGiB = 1 << 30;
    EXPECT_EQ("import  50% [###############...............] 512.0 MiB, 256.0 MiB/s, 0:02 left",
              formatProgress("import", kGiB / 2, kGiB, 2.0));
    EXPECT_EQ("import 100% [##############################] 1.0 GiB, 512.0 MiB/s",
              formatProgress("import", kGiB, kGiB, 2.0));
    EXPECT_EQ("import   0% [..............................] 0 bytes",
              formatProgress("import", 0, kGiB, 0.0));
    EXPECT_EQ("import 1.0 MiB, 512.0 KiB/s", formatProgress("import", 1 << 20, -1, 2.0));
    EXPECT_EQ("x   0% [..............................] 1.0 KiB, 1.0 KiB/s, 2:00:00 left",
              formatProgress("x", 1024, 1024 * 7201, 1.0));
    EXPECT_EQ("x   0% [..............................] 1 bytes, 0 bytes/s, 999:00:00 left",
              formatProgress("x", 1, 9223372036854775807, 1000000.0));
    // An image may turn out longer than was thought.
    EXPECT_EQ("x 100% [##############################] 2.0 KiB, 2.0 KiB/s",
              formatProgress("x", 2048, 1024, 1.0));
}

TEST(Progress, ThrottleLetsTheFirstAndTheLastThrough) {
    std::vector<__int64> seen;
    ProgressThrottle throttle([&](__int64 done, __int64) { seen.push_back(done); });
    for (__int64 done = 0; done <= 1000; ++done)
        throttle.report(done, 1000);
    ASSERT_GE(seen.size(), 2U);
    EXPECT_EQ(0, seen.front());
    EXPECT_EQ(1000, seen.back());
    EXPECT_LT(seen.size(), 500U);
    EXPECT_NO_THROW(ProgressThrottle(nullptr).report(1, 1));
}

TEST(Progress, NothingIsShownWhereThereIsNoTerminal) {
    int ends[2];
    ASSERT_EQ(0, ::pipe2(ends, O_NONBLOCK));
    { ProgressBar("import", ends[1]).callback()(1, 2); }
    char byte = 0;
    EXPECT_EQ(-1, ::read(ends[0], &byte, 1));
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(Progress, BarIsShownOnATerminalAndGoesAway) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(0, ::openpty(&master, &slave, nullptr, nullptr, nullptr));
    { ProgressBar("import", slave).callback()(1 << 20, 2 << 20); }
    std::string text;
    char byte = 0;
    while (text.rfind("\r\x1b[K") == std::string::npos && ::read(master, &byte, 1) == 1)
        text += byte;
    EXPECT_EQ(0U, text.find("\rimport  50% [###############...............] 1.0 MiB")) << text;
    EXPECT_EQ(text.size() - 4, text.rfind("\r\x1b[K")) << text;
    ::close(master);
    ::close(slave);
}

TEST(Progress, BarMakesRoomForOtherText) {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(0, ::openpty(&master, &slave, nullptr, nullptr, nullptr));
    {
        ProgressBar bar("check", slave);
        bar.hide();
        bar.show(1 << 20, 2 << 20);
        bar.hide();
        bar.hide();
    }
    ASSERT_EQ(1, ::write(slave, "!", 1));
    std::string text;
    char byte = 0;
    while (text.find('!') == std::string::npos && ::read(master, &byte, 1) == 1)
        text += byte;
    EXPECT_EQ(0U, text.find("\rcheck  50%")) << text;
    EXPECT_EQ(text.size() - 8, text.find("\x1b[K\r\x1b[K!")) << text;
    ::close(master);
    ::close(slave);
}

class PasswordTest : public HostTest {
protected:
    std::string putFile(std::string const& content) {
        std::ofstream(pathOf("pw"), std::ios::binary) << content;
        return pathOf("pw");
    }
    static std::string textOf(Password const& password) { return password.get().toStdString(); }

    CancelFlag cancel;
};

TEST_F(PasswordTest, FileIsReadWithoutItsLineEnd) {
    struct Case {
        std::string content;
        std::string password;
    };
    for (Case const& c : {
             Case{"secret", "secret"},
             Case{"secret\n", "secret"},
             Case{"secret\r\n", "secret"},
             Case{"secret\n\n", "secret\n"},
             Case{"secret\r", "secret\r"},
             Case{" two words ", " two words "},
             Case{"two\nlines\n", "two\nlines"},
             Case{"\xC3\xA4\xE2\x82\xAC", "\xC3\xA4\xE2\x82\xAC"},
             Case{"", ""},
             Case{"\n", ""},
             Case{std::string(4096, 'x') + "\r\n", std::string(4096, 'x')},
         })
        EXPECT_EQ(c.password, textOf(readPasswordFile(putFile(c.content), cancel)));
}

TEST_F(PasswordTest, FileThatIsMissingOrTooLongIsRefused) {
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotFound, "Cannot open the password file: No such file or directory",
        {{"path", pathOf("none")}}, [&] { readPasswordFile(pathOf("none"), cancel); }));
    for (std::string const& content :
         {std::string(4097, 'x'), std::string(4097, 'x') + "\n", std::string(1000000, 'x')})
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "The password is too long.", {},
                                  [&] { readPasswordFile(putFile(content), cancel); }));
    EXPECT_THROW(readPasswordFile(folder.path(), cancel), yx::CIOError);
}

TEST_F(PasswordTest, FileDescriptorIsReadToItsEnd) {
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    ASSERT_EQ(7, ::write(ends[1], "secret\n", 7));
    ::close(ends[1]);
    EXPECT_EQ("secret", textOf(readPasswordFileDescriptor(ends[0], cancel)));
    ::close(ends[0]);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::IOFailure, "Cannot read the password: Bad file descriptor",
        {{"path", "/dev/fd/9999"}}, [&] { readPasswordFileDescriptor(9999, cancel); }));
}

TEST_F(PasswordTest, NamedPipeIsWaitedFor) {
    std::string const path = pathOf("pipe");
    ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
    std::thread writer([&path] {
        int const pipe = ::open(path.c_str(), O_WRONLY);
        EXPECT_EQ(7, ::write(pipe, "secret\n", 7));
        ::close(pipe);
    });
    EXPECT_EQ("secret", textOf(readPasswordFile(path, cancel)));
    writer.join();
}

// The signal may have come before the waiting begins.
TEST_F(PasswordTest, WaitingForAPasswordCanBeCancelled) {
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    ASSERT_EQ(0, ::mkfifo(pathOf("pipe").c_str(), 0600));
    cancel.set();
    EXPECT_THROW(readPasswordFileDescriptor(ends[0], cancel), CancelledError);
    EXPECT_THROW(readPasswordFile(pathOf("pipe"), cancel), CancelledError);
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST_F(PasswordTest, EnvironmentVariableIsTakenAsItStands) {
    ::setenv("KELM_TEST_PASSWORD", "sec ret\n", 1);
    EXPECT_EQ("sec ret\n", textOf(readPasswordVariable("KELM_TEST_PASSWORD")));
    ::setenv("KELM_TEST_PASSWORD", std::string(4097, 'x').c_str(), 1);
    EXPECT_THROW(readPasswordVariable("KELM_TEST_PASSWORD"), yx::CIOError);
    ::unsetenv("KELM_TEST_PASSWORD");
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                              "The environment variable 'KELM_TEST_PASSWORD' is not set.", {},
                              [] { readPasswordVariable("KELM_TEST_PASSWORD"); }));
}

TEST_F(PasswordTest, GivenUpPasswordIsOverwritten) {
    Password password(yx::String("secret"));
    Password const copy = password;
    password = Password();
    EXPECT_TRUE(password.isEmpty());
    EXPECT_EQ("secret", textOf(copy));
}

struct PromptPlay {
    /// What the terminal showed.
    std::string shown;

    /// The password behind "got ", or the words of the error.
    std::string result;
};

/// Runs a prompt on a terminal of its own and plays the user.
PromptPlay playPrompt(bool twice, Dialogue const& dialogue, bool isCancelled = false) {
    int result[2];
    EXPECT_EQ(0, ::pipe(result));
    auto const prompt = [&] {
        std::string text;
        CancelFlag cancel;
        if (isCancelled)
            cancel.set();
        try {
            text = "got " + promptForPassword("Password", twice, cancel).get().toStdString();
        } catch (std::exception const& error) {
            text = error.what();
        }
        return ::write(result[1], text.data(), text.size()) < 0 ? 1 : 0;
    };
    PromptPlay play{playOnTerminal(prompt, dialogue).shown, ""};
    ::close(result[1]);
    char part[256];
    for (ssize_t count = 0; (count = ::read(result[0], part, sizeof part)) > 0;)
        play.result.append(part, static_cast<std::size_t>(count));
    ::close(result[0]);
    return play;
}

TEST(PasswordPrompt, DoesNotShowWhatIsTyped) {
    PromptPlay const play = playPrompt(false, {{"Password: ", "secret\n"}});
    EXPECT_EQ("got secret", play.result);
    EXPECT_EQ("Password: \r\n", play.shown);
}

TEST(PasswordPrompt, AsksTwiceAndTakesEqualAnswers) {
    PromptPlay const play =
        playPrompt(true, {{"Password: ", "secret\n"}, {"Password again: ", "secret\n"}});
    EXPECT_EQ("got secret", play.result);
    EXPECT_EQ("Password: \r\nPassword again: \r\n", play.shown);
}

TEST(PasswordPrompt, RefusesAnswersThatDiffer) {
    PromptPlay const play =
        playPrompt(true, {{"Password: ", "secret\n"}, {"Password again: ", "sekret\n"}});
    EXPECT_EQ("The two passwords differ.", play.result);
}

TEST(PasswordPrompt, SignalJustBeforeTheWaitingEndsIt) {
    PromptPlay const play = playPrompt(false, {}, true);
    EXPECT_EQ("Cancelled.", play.result);
    EXPECT_EQ("Password: ", play.shown);
}

TEST(PasswordPrompt, NeedsATerminal) {
    int result[2];
    ASSERT_EQ(0, ::pipe(result));
    pid_t const child = ::fork();
    if (child == 0) {
        ::setsid();
        char outcome = 'n';
        try {
            promptForPassword("Password", false, CancelFlag());
        } catch (yx::CIOError const& error) {
            outcome = error.getIOCode() == yx::CIOError::NotSupported ? 'y' : 'e';
        }
        [[maybe_unused]] ssize_t const count = ::write(result[1], &outcome, 1);
        ::_exit(0);
    }
    ::close(result[1]);
    char outcome = 0;
    EXPECT_EQ(1, ::read(result[0], &outcome, 1));
    EXPECT_EQ('y', outcome);
    ::close(result[0]);
    ::waitpid(child, nullptr, 0);
}

TEST(Cancel, FlagStopsTheWork) {
    CancelFlag flag;
    EXPECT_NO_THROW(flag.check());
    flag.set();
    try {
        flag.check();
        FAIL() << "threw nothing";
    } catch (CancelledError const& error) {
        EXPECT_EQ("Cancelled.", error.getMessage().toStdString());
        EXPECT_EQ(-1, error.getCode());
    }
}

TEST(Cancel, SignalsSetTheFlagWhileSomebodyListens) {
    resetSignals();
    for (int const signal : {SIGINT, SIGTERM, SIGHUP}) {
        CancelFlag flag;
        {
            SignalCancellation const listening(flag);
            EXPECT_FALSE(flag.isSet());
            ::raise(signal);
            EXPECT_TRUE(flag.isSet());
        }
        struct sigaction now = {};
        ::sigaction(signal, nullptr, &now);
        EXPECT_EQ(SIG_DFL, now.sa_handler);
    }
}

TEST(Cancel, SecondSignalEndsTheProcess) {
    resetSignals();
    EXPECT_EXIT(
        {
            CancelFlag flag;
            SignalCancellation const listening(flag);
            ::raise(SIGINT);
            ::raise(SIGINT);
        },
        testing::KilledBySignal(SIGINT), "");
}

TEST(Cancel, IgnoredSignalStaysIgnored) {
    ::signal(SIGHUP, SIG_IGN);
    {
        CancelFlag flag;
        SignalCancellation const listening(flag);
        ::raise(SIGHUP);
        EXPECT_FALSE(flag.isSet());
    }
    struct sigaction now = {};
    ::sigaction(SIGHUP, nullptr, &now);
    EXPECT_EQ(SIG_IGN, now.sa_handler);
    ::signal(SIGHUP, SIG_DFL);
}

} // namespace
} // namespace test_support
