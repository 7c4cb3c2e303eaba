// Disks that clients of other machines hold, and how they are freed of those who have died.

#include <csignal>
#include <filesystem>

#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/cluster/administrator.h"
#include "tests/cluster/cluster_backends.h"
#include "tests/cluster/cluster_shell.h"
#include "tests/endtoend/tool_fixture.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace cluster_unlock_test {

namespace {

using cluster_shell::comesTrue;
using cluster_shell::runInShell;
using endtoend::RunningTool;
using endtoend::ToolOutcome;
using endtoend::ToolTest;
using kelm::ceph::CCephFileSystem;
using kelm::host::StoreHolder;
using test_support::Arguments;
using yx::IIOStream;

constexpr std::size_t kImageBytes = std::size_t{20} << 20;
constexpr char kOtherHost[] = "backup-2";

/// What is to end at once then cannot have ended by time.
constexpr char kNever[] = "36000";

/// A failure then ends, long before the cluster would miss anybody.
constexpr char kPatience[] = "120";

/// Makes a process one of a machine of another name. False where the user may not.
bool becomeAnotherHost() {
    bool const isApart =
        ::unshare(CLONE_NEWUTS) == 0 || ::unshare(CLONE_NEWUSER | CLONE_NEWUTS) == 0;
    return isApart && ::sethostname(kOtherHost, sizeof kOtherHost - 1) == 0;
}

/// Takes away what a process has noted on this machine of its client, which another machine would
/// not see.
void hideClient(pid_t process) {
    int hidden = 0;
    for (auto const& entry :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        std::error_code ignored;
        std::filesystem::path const file = std::filesystem::read_symlink(entry.path(), ignored);
        bool const isNote = file.filename().string().starts_with("ceph-") &&
                            file.parent_path().filename().string().starts_with("kelm");
        if (isNote && std::filesystem::remove(file, ignored))
            ++hidden;
    }
    EXPECT_EQ(hidden, 1);
}

/// The cluster misses nobody as long as this lives.
class PatientCluster {
public:
    PatientCluster() {
        set("session_timeout", kNever);
        set("session_autoclose", kNever);
    }
    PatientCluster(PatientCluster const&) = delete;
    PatientCluster& operator=(PatientCluster const&) = delete;
    ~PatientCluster() {
        set("session_timeout", "60");
        set("session_autoclose", "300");
    }

private:
    static void set(std::string const& name, std::string const& seconds) {
        runInShell("ceph fs set disks " + name + " " + seconds + " 2>/dev/null");
    }
};

class ClusterUnlock : public ToolTest {
protected:
    ClusterUnlock() { writeFile("image", makeImage(kImageBytes, 7)); }

    /// Of a disk in the folder of the test, as a user sees it.
    std::string disk(std::string const& name, std::string const& user) const {
        yx::CURI const uri = yx::CURI(cluster.folder) << yx::String::fromUTF8(name);
        return "ceph://" + user + "@disks" + uri.getPath().toStdString();
    }

    ToolOutcome unlock(std::string const& name, std::string const& user,
                       Arguments const& more = {}) const {
        return run(test_support::joined(
            {{"unlock", disk(name, user), "--store-timeout", kPatience}, more}));
    }

    /// Begins to fill a disk, and stops in the middle, once the disk can be seen.
    std::unique_ptr<RunningTool> beginToWrite(std::string const& name, Arguments const& more = {},
                                              std::function<void()> const& prepare = {}) const {
        auto writer = std::make_unique<RunningTool>(
            folder(),
            test_support::joined({{"import", "-", disk(name, "writer"), "--size", "20M"}, more}),
            prepare);
        writer->feed(readFile("image").substr(0, kImageBytes / 2));
        EXPECT_TRUE(comesTrue([&] { return cluster.files->fileExists(cluster.uri(name)); }));
        return writer;
    }

    /// The same by a machine of another name.
    std::unique_ptr<RunningTool> beginToWriteFarAway(std::string const& name,
                                                     Arguments const& more = {}) const {
        auto writer = beginToWrite(name, more, [] {
            if (!becomeAnotherHost())
                ::_exit(1);
        });
        hideClient(writer->id());
        return writer;
    }

    static std::string describe(RunningTool const& writer, std::string const& host) {
        return " on the host " + host + ", process " + std::to_string(writer.id()) +
               ", user writer, connected for ";
    }

    /// By another client, which begins where the one has stopped.
    void finishFilling(std::string const& name) const {
        ToolOutcome const outcome = run(
            {"import", "image", disk(name, "writer"), "--resume", "--store-timeout", kPatience});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }

    void expectHolds(std::string const& name) const {
        EXPECT_EQ(runWell({"compare", disk(name, "writer"), "image"}), "equal\n");
        EXPECT_EQ(runWell({"check", disk(name, "writer")}), "");
    }

    file_system_backends::Cluster cluster;
};

/// Whether this user can be a machine of another name.
class ClusterUnlockFarAway : public ClusterUnlock {
protected:
    void SetUp() override {
        pid_t const child = ::fork();
        if (child == 0)
            ::_exit(becomeAnotherHost() ? 0 : 1);
        int status = 0;
        ::waitpid(child, &status, 0);
        if (status != 0)
            GTEST_SKIP() << "This user cannot be another host.";
    }

    PatientCluster m_patient;
};

TEST_F(ClusterUnlock, ADiskThatNobodyHoldsIsFreeForWhomever) {
    runWell({"import", "image", disk("a.vmdk", "writer"), "--split", "8M"});
    for (char const* const user : {"writer", "admin"}) {
        ToolOutcome const outcome = unlock("a.vmdk", user);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.out, "free\n");
    }
    EXPECT_EQ(unlock("a.vmdk", "admin", {"--force"}).out, "free\n");
    expectHolds("a.vmdk");
}

TEST_F(ClusterUnlock, OnlyAnAdministratorIsToldAndMayForce) {
    auto const writer = beginToWrite("a.vmdk");
    std::string const words = "a user with mds 'allow *': name one in the URI, as in "
                              "ceph://admin@disks/full.vmdk.";
    ToolOutcome const outcome = unlock("a.vmdk", "writer");
    EXPECT_EQ(outcome.status, 6);
    EXPECT_TRUE(outcome.out.starts_with("held, by whom is not known: ")) << outcome.out;
    EXPECT_NE(outcome.out.find(words), std::string::npos) << outcome.out;
    ToolOutcome const forced = unlock("a.vmdk", "writer", {"--force"});
    EXPECT_EQ(forced.status, 3);
    EXPECT_NE(forced.err.find(words), std::string::npos) << forced.err;
}

TEST_F(ClusterUnlock, AProcessOfThisMachineThatLivesIsNotShutOut) {
    auto const writer = beginToWrite("a.vmdk");
    ToolOutcome const outcome = unlock("a.vmdk", "admin", {"--force"});
    EXPECT_EQ(outcome.status, 6);
    EXPECT_NE(outcome.out.find(", process " + std::to_string(writer->id()) + ", user writer, "),
              std::string::npos)
        << outcome.out;
    EXPECT_TRUE(outcome.out.ends_with(", which lives on this machine\n")) << outcome.out;
    writer->feed(readFile("image").substr(kImageBytes / 2));
    ToolOutcome const written = writer->finish();
    EXPECT_EQ(written.status, 0) << written.err;
    expectHolds("a.vmdk");
}

TEST_F(ClusterUnlock, AProcessOfThisMachineThatHasEndedIsShutOutWithoutForce) {
    PatientCluster const patient;
    auto const writer = beginToWrite("a.vmdk");
    writer->signal(SIGKILL);
    writer->finish();
    // Another user of the cluster cannot clear it away.
    ToolOutcome const outcome = unlock("a.vmdk", "admin");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(outcome.out.starts_with("shut out: client ")) << outcome.out;
    EXPECT_TRUE(outcome.out.ends_with(", which has ended on this machine\nfree\n")) << outcome.out;
    finishFilling("a.vmdk");
    expectHolds("a.vmdk");
}

TEST_F(ClusterUnlock, AClientIsNotItsOwnHolderAndShutsItselfNotOut) {
    yx::CURI const file(yx::String::fromUTF8(disk("a", "admin")));
    auto const own = yx::makeObject<CCephFileSystem>();
    auto const stream = own->openFile(file, IIOStream::ReadWrite, nullptr);
    EXPECT_EQ(own->findHolders({file}).size(), 0U);
    auto const other = yx::makeObject<CCephFileSystem>();
    std::vector<StoreHolder> const holders = other->findHolders({file});
    ASSERT_EQ(holders.size(), 1U);
    EXPECT_EQ(holders[0].user, "admin");
    EXPECT_EQ(holders[0].process, std::to_string(::getpid()));
    EXPECT_EQ(holders[0].life, StoreHolder::Life::LivesHere);
    ASSERT_EQ(holders[0].files.size(), 1U);
    EXPECT_TRUE(holders[0].files[0].isOpenForWriting);
    for (std::string const& number : {holders[0].number, std::string("0"), std::string("x")}) {
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::NotAllowed, "This client is not to be shut out.",
            {{"uri", disk("a", "admin")}}, [&] { own->shutOut(file, number); }));
    }
    test_support::writeAt(*stream, 0, test_support::fromText("still"));
    stream->flush();
}

TEST_F(ClusterUnlockFarAway, ADeadMachineIsNamedAndByForceShutOutAtOnce) {
    int number = 0;
    for (Arguments const& kind : {Arguments{}, Arguments{"--split", "8M", "--compressed"}}) {
        std::string const name = "a" + std::to_string(++number) + ".vmdk";
        SCOPED_TRACE(name);
        auto const writer = beginToWriteFarAway(name, kind);
        std::string const described = describe(*writer, kOtherHost);
        writer->signal(SIGKILL);
        writer->finish();
        ToolOutcome const held = unlock(name, "admin");
        EXPECT_EQ(held.status, 6);
        EXPECT_TRUE(held.out.starts_with("held by: client ")) << held.out;
        EXPECT_NE(held.out.find(described), std::string::npos) << held.out;
        EXPECT_NE(held.err.find("--force"), std::string::npos) << held.err;
        ToolOutcome const freed = unlock(name, "admin", {"--force"});
        EXPECT_EQ(freed.status, 0) << freed.err;
        EXPECT_TRUE(freed.out.starts_with("shut out: client ")) << freed.out;
        EXPECT_NE(freed.out.find(described), std::string::npos) << freed.out;
        EXPECT_TRUE(freed.out.ends_with("\nfree\n")) << freed.out;
        finishFilling(name);
        expectHolds(name);
    }
}

TEST_F(ClusterUnlockFarAway, AHolderThatStoodStillAndWasShutOutWritesNothingMore) {
    auto const writer = beginToWriteFarAway("a.vmdk");
    ASSERT_TRUE(writer->pause());
    ToolOutcome const freed = unlock("a.vmdk", "admin", {"--force"});
    EXPECT_EQ(freed.status, 0) << freed.err;
    EXPECT_TRUE(freed.out.starts_with("shut out: client ")) << freed.out;
    finishFilling("a.vmdk");
    writer->resume();
    writer->feed(std::string(kImageBytes / 2, 'x'));
    ToolOutcome const outcome = writer->finish();
    EXPECT_EQ(outcome.status, 3);
    EXPECT_NE(outcome.err.find("The cluster has shut this client out."), std::string::npos)
        << outcome.err;
    expectHolds("a.vmdk");
}

TEST_F(ClusterUnlockFarAway, ThoseWhoWereKilledWhileTheyWaitedAreInNobodysWay) {
    auto const writer = beginToWriteFarAway("a.vmdk");
    writer->signal(SIGKILL);
    writer->finish();
    for (char const* const user : {"writer", "admin"}) {
        RunningTool waiting(folder(), {"info", disk("a.vmdk", user), "--progress=json"});
        EXPECT_TRUE(comesTrue([&] {
            return waiting.readErrors().find("{\"waiting\":\"store\"") != std::string::npos;
        }));
        waiting.signal(SIGKILL);
        waiting.finish();
    }
    ToolOutcome const freed = unlock("a.vmdk", "admin", {"--force"});
    EXPECT_EQ(freed.status, 0) << freed.err;
    EXPECT_EQ(freed.err, "");
    finishFilling("a.vmdk");
    expectHolds("a.vmdk");
}

TEST_F(ClusterUnlockFarAway, WhoHoldsAnotherDiskStays) {
    auto const dead = beginToWriteFarAway("a.vmdk");
    auto const living = beginToWriteFarAway("b.vmdk");
    dead->signal(SIGKILL);
    dead->finish();
    EXPECT_EQ(unlock("a.vmdk", "admin", {"--force"}).status, 0);
    living->feed(readFile("image").substr(kImageBytes / 2));
    ToolOutcome const outcome = living->finish();
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    expectHolds("b.vmdk");
}

/// A file system of which two metadata servers have a part each.
class ClusterUnlockOfTwoServers : public ClusterUnlockFarAway {
protected:
    void SetUp() override {
        ClusterUnlockFarAway::SetUp();
        if (IsSkipped())
            return;
        runInShell("ceph fs set disks max_mds 2 2>/dev/null");
        ASSERT_TRUE(comesTrue([] { return countActive() == 2; }));
        cluster_shell::Administrator().pinFolder(cluster.folder, 1);
    }
    ~ClusterUnlockOfTwoServers() override {
        cluster_shell::Administrator().pinFolder(cluster.folder, 0);
        runInShell("ceph fs set disks max_mds 1 2>/dev/null");
        EXPECT_TRUE(comesTrue([] { return countActive() == 1; }));
        EXPECT_TRUE(comesTrue(cluster_shell::isClusterWhole));
    }

    static std::size_t countActive() { return cluster_shell::findActiveMetadataServer().size(); }
};

TEST_F(ClusterUnlockOfTwoServers, BothKnowTheirHolders) {
    auto const writer = beginToWriteFarAway("a.vmdk");
    std::string const described = describe(*writer, kOtherHost);
    writer->signal(SIGKILL);
    writer->finish();
    ToolOutcome const held = unlock("a.vmdk", "admin");
    EXPECT_EQ(held.status, 6);
    EXPECT_NE(held.out.find(described), std::string::npos) << held.out;
    ToolOutcome const freed = unlock("a.vmdk", "admin", {"--force"});
    EXPECT_EQ(freed.status, 0) << freed.err;
    finishFilling("a.vmdk");
    expectHolds("a.vmdk");
}

} // namespace

} // namespace cluster_unlock_test
