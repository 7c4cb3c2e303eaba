#include "host/disk/file_guard.h"

#include <cstdio>

#include <fcntl.h>
#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"
#include "yx/native_file_system.h"

using testing::ElementsAre;

namespace test_support {
namespace {

class FileGuardTest : public HostTest {
protected:
    static void put(yx::IFileSystem& guard, std::string const& name, std::string const& text) {
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> const stream = guard.openFile(uriOf(name), kReadWrite, &reserved);
        stream->write(text.data(), static_cast<int>(text.size()), nullptr);
        stream->close();
    }

    std::string get(std::string const& name) {
        return toText(toBytes(files->getFile(uriOf(name))));
    }
};

TEST_F(FileGuardTest, TakesAwayWhatItMade) {
    putText("old", "old");
    {
        yx::P<FileGuard> const guard = makeGuard();
        put(*guard, "a", "new");
        put(*guard, "b", "new");
        EXPECT_THAT(fileNames(), ElementsAre("a", "b", "old"));
    }
    EXPECT_THAT(fileNames(), ElementsAre("old"));
}

TEST_F(FileGuardTest, KeepsWhatItIsToldToKeep) {
    {
        yx::P<FileGuard> const guard = makeGuard();
        put(*guard, "a", "new");
        guard->keep();
        // What was made can still be written to, and what is made now stays as well.
        put(*guard, "a", "NEW");
        put(*guard, "b", "late");
    }
    EXPECT_EQ("NEW", get("a"));
    EXPECT_EQ("late", get("b"));
}

TEST_F(FileGuardTest, TouchesNothingThatWasThereBefore) {
    putText("old", "old");
    yx::P<FileGuard> const guard = makeGuard();
    for (auto const& action :
         {std::function<void()>([&] { put(*guard, "old", "new"); }),
          std::function<void()>([&] { guard->deleteFile(uriOf("old"), true); })})
        EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                                  {{"uri", "mem:///disks/old"}}, action));
    EXPECT_EQ("old", get("old"));
    unsigned int reserved = 0;
    EXPECT_EQ(3, guard->openFile(uriOf("old"), kReadOnly, &reserved)->getLength());
}

TEST_F(FileGuardTest, OverwritesOnlyWhereItMay) {
    putText("old", "a long old text");
    yx::P<FileGuard> const guard = makeGuard(true);
    put(*guard, "old", "new");
    EXPECT_EQ("new", get("old"));
    guard->keep();
}

TEST_F(FileGuardTest, FailedReplacementIsTakenAwayToo) {
    putText("old", "old");
    put(*makeGuard(true), "old", "new");
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(FileGuardTest, ProtectedFilesStayWhateverIsAllowed) {
    putText("old", "old");
    yx::P<FileGuard> const guard = makeGuard(true);
    guard->protect({yx::CURI("MEM:///disks/./old")});
    for (auto const& action :
         {std::function<void()>([&] { put(*guard, "old", "new"); }),
          std::function<void()>([&] { guard->deleteFile(uriOf("old"), true); })})
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The file is being read.",
                                  {{"uri", "mem:///disks/old"}}, action));
    EXPECT_EQ("old", get("old"));
}

TEST_F(FileGuardTest, KnowsWhetherItsFilesAreStillThere) {
    yx::P<FileGuard> const guard = makeGuard();
    put(*guard, "a", "new");
    put(*guard, "b", "new");
    guard->deleteFile(uriOf("b"), false);
    EXPECT_NO_THROW(guard->verifyFilesAreThere());
    files->deleteFile(uriOf("a"), false);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                              "The file was deleted while it was being written.",
                              {{"uri", "mem:///disks/a"}}, [&] { guard->verifyFilesAreThere(); }));
}

TEST_F(FileGuardTest, KnowsAFileOfTheSystemFromAnotherOfItsName) {
    yx::P<yx::CNativeFileSystem> const native = yx::makeObject<yx::CNativeFileSystem>();
    std::string const uri = folder.uri("a").toString(true).toStdString();
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> stream = guard->openFile(folder.uri("a"), kReadWrite, &reserved);
        stream->write("new", 3, nullptr);
        EXPECT_NO_THROW(guard->verifyFilesAreThere());
        std::filesystem::remove(pathOf("a"));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound,
                                  "The file was deleted while it was being written.",
                                  {{"uri", uri}}, [&] { guard->verifyFilesAreThere(); }));
        std::ofstream(pathOf("a")) << "another";
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::IOFailure,
                          "The file was replaced by another one while it was being written.",
                          {{"uri", uri}}, [&] { guard->verifyFilesAreThere(); }));
        stream->close();
    }
    // What is not its own it does not take away.
    EXPECT_EQ(fromText("another"), readImage(pathOf("a")));
}

/// What the guard meets where somebody else is at work in the folder.
class FileGuardAgainstOthers : public FileGuardTest {
protected:
    using Hook = HookedFileSystem::Hook;

    /// A guard whose file system hands each operation to the hook.
    yx::P<FileGuard> makeHookedGuard(Hook const& hook) {
        return yx::makeObject<FileGuard>(yx::makeObject<HookedFileSystem>(native.get(), hook).get(),
                                         false);
    }

    /// Puts another file in the place of a file.
    void replace(std::string const& name) {
        std::ofstream(pathOf("another")) << "another";
        std::filesystem::rename(pathOf("another"), pathOf(name));
    }

    /// Exchanges the names of two files.
    void exchange(std::string const& one, std::string const& other) {
        ASSERT_EQ(0, ::renameat2(AT_FDCWD, pathOf(one).c_str(), AT_FDCWD, pathOf(other).c_str(),
                                 RENAME_EXCHANGE));
    }

    testing::AssertionResult isLost(yx::CIOError::Code code, std::string const& name,
                                    std::function<void()> const& action) {
        std::string const what =
            code == yx::CIOError::NotFound ? "deleted" : "replaced by another one";
        return throwsIOError(code, "The file was " + what + " while it was being written.",
                             {{"uri", folder.uri(name).toString(true).toStdString()}}, action);
    }

    yx::P<yx::IIOStream> open(FileGuard& guard, std::string const& name,
                              yx::IIOStream::Access access = kReadWrite) {
        unsigned int options = 0;
        return guard.openFile(folder.uri(name), access, &options);
    }

    yx::P<yx::CNativeFileSystem> native =
        yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
};

TEST_F(FileGuardAgainstOthers, OpensNoFileThatWasLostMeanwhile) {
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
    open(*guard, "a")->close();
    std::filesystem::remove(pathOf("a"));
    for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite})
        EXPECT_TRUE(isLost(yx::CIOError::NotFound, "a", [&] { open(*guard, "a", access); }));
    EXPECT_TRUE(isLost(yx::CIOError::NotFound, "a", [&] { guard->fileExists(folder.uri("a")); }));
    EXPECT_FALSE(std::filesystem::exists(pathOf("a")));
    replace("a");
    for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite})
        EXPECT_TRUE(isLost(yx::CIOError::IOFailure, "a", [&] { open(*guard, "a", access); }));
    EXPECT_TRUE(isLost(yx::CIOError::IOFailure, "a", [&] { guard->fileExists(folder.uri("a")); }));
    EXPECT_EQ(fromText("another"), readImage(pathOf("a")));
}

TEST_F(FileGuardAgainstOthers, OpensNoFileThatIsLostAtThatMoment) {
    struct Case {
        yx::CIOError::Code code;
        std::function<void()> before;
        std::function<void()> after;
    };
    std::ofstream(pathOf("b")) << "another";
    Case const cases[] = {
        {yx::CIOError::NotFound, [&] { std::filesystem::remove(pathOf("a")); }, [] {}},
        {yx::CIOError::IOFailure, [&] { replace("a"); }, [] {}},
        // The name is that of the file again when somebody looks.
        {yx::CIOError::IOFailure, [&] { exchange("a", "b"); }, [&] { exchange("a", "b"); }},
    };
    for (Case const& c : cases) {
        for (int const nth : {1, 2}) {
            SCOPED_TRACE(testing::Message() << "case " << &c - cases << ", opening " << nth);
            int openings = 0;
            yx::P<FileGuard> const guard = makeHookedGuard(
                [&](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
                    bool const isMoment =
                        operation.kind == FileOperation::Kind::Open && ++openings == nth;
                    if (isMoment)
                        c.before();
                    proceed();
                    if (isMoment)
                        c.after();
                });
            if (nth == 2)
                open(*guard, "a")->close();
            EXPECT_TRUE(isLost(c.code, "a", [&] { open(*guard, "a"); }));
            std::filesystem::remove(pathOf("a"));
        }
    }
    EXPECT_EQ(fromText("another"), readImage(pathOf("b")));
}

TEST_F(FileGuardAgainstOthers, DeletesNoFileThatReplacedItsOwn) {
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
    open(*guard, "a")->close();
    replace("a");
    EXPECT_TRUE(
        isLost(yx::CIOError::IOFailure, "a", [&] { guard->deleteFile(folder.uri("a"), false); }));
    EXPECT_NO_THROW(guard->deleteFile(folder.uri("a"), true));
    EXPECT_TRUE(isLost(yx::CIOError::IOFailure, "a", [&] { guard->verifyFilesAreThere(); }));
    EXPECT_EQ(fromText("another"), readImage(pathOf("a")));
}

struct LossOfNewDisk {
    char const* name;
    char const* kind;
    bool isReplaced;

    /// A file is lost before the first operation, and before each so many after that.
    int step;
};

void PrintTo(LossOfNewDisk const& loss, std::ostream* out) {
    *out << loss.name;
}

/// Makes new disks of which somebody takes a file away, or puts another one in its place.
class LossesOfNewDisks : public FileGuardAgainstOthers,
                         public testing::WithParamInterface<LossOfNewDisk> {
protected:
    /// Loses the file of the nth operation before that; none for 0.
    void makeDisk(int nth) {
        m_operations = 0;
        m_lost.clear();
        bool isMade = false;
        yx::P<FileGuard> const guard = makeHookedGuard(
            [&](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
                if (!isMade && ++m_operations == nth)
                    lose(operation.uri);
                proceed();
            });
        NewDisk request = requestFor(kindNamed(GetParam().kind), kSmallestDiskBytes);
        request.isToBeFilled = true;
        std::unique_ptr<SafeDisk> disk =
            SafeDisk::create(guard.get(), folder.uri("disk.vmdk"), request);
        writeTo(*disk, kSmallestDiskBytes - 10, pattern(10, 1));
        disk->markComplete();
        disk.reset();
        guard->verifyFilesAreThere();
        isMade = true;
    }

    void lose(yx::CURI const& uri) {
        std::string const name = uri.getName().toStdString();
        if (uri.getExtension() == ".lock" || !std::filesystem::exists(pathOf(name)))
            return;
        m_lost = name;
        if (GetParam().isReplaced)
            replace(name);
        else
            std::filesystem::remove(pathOf(name));
    }

    /// Expects of a disk whose file was lost that it failed, and touched no other file.
    void expectLoss(std::optional<yx::CIOError> const& error) {
        std::vector<std::string> left;
        for (auto const& entry : std::filesystem::directory_iterator(folder.path()))
            left.push_back(entry.path().filename().string());
        ASSERT_TRUE(error) << m_lost;
        bool const isReplaced = GetParam().isReplaced;
        EXPECT_TRUE(isLost(isReplaced ? yx::CIOError::IOFailure : yx::CIOError::NotFound, m_lost,
                           [&] { throw *error; }));
        if (!isReplaced) {
            EXPECT_THAT(left, ElementsAre());
            return;
        }
        ASSERT_THAT(left, ElementsAre(m_lost));
        EXPECT_EQ(fromText("another"), readImage(pathOf(m_lost)));
        std::filesystem::remove(pathOf(m_lost));
    }

    int m_operations = 0;
    std::string m_lost;
};

TEST_P(LossesOfNewDisks, AreFailuresAndTouchNoOtherFile) {
    LogCapture const quiet;
    makeDisk(0);
    int const operations = m_operations;
    int losses = 0;
    for (int nth = 1; nth <= operations; nth += GetParam().step) {
        SCOPED_TRACE(nth);
        std::optional<yx::CIOError> error;
        try {
            makeDisk(nth);
        } catch (yx::CIOError const& caught) {
            error = caught;
        }
        if (m_lost.empty())
            continue;
        ++losses;
        expectLoss(error);
    }
    EXPECT_GT(losses, operations / GetParam().step / 2);
}

INSTANTIATE_TEST_SUITE_P(Files, LossesOfNewDisks,
                         testing::Values(LossOfNewDisk{"OneDeleted", "compressed", false, 1},
                                         LossOfNewDisk{"OneReplaced", "compressed", true, 1},
                                         LossOfNewDisk{"SplitDeleted", "split", false, 7},
                                         LossOfNewDisk{"SplitReplaced", "split", true, 7}),
                         [](auto const& loss) { return std::string(loss.param.name); });

TEST_F(FileGuardTest, LeftLockFileIsNobodysProperty) {
    putText("disk.vmdk.lock", "");
    {
        yx::P<FileGuard> const guard = makeGuard();
        EXPECT_NO_THROW(put(*guard, "disk.vmdk.lock", ""));
    }
    EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk.lock"));
}

TEST_F(FileGuardTest, FileThatCannotBeTakenAwayIsLogged) {
    LogCapture log;
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    faulty->add({.kinds = {FileOperation::Kind::Delete}, .file = "a"});
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(faulty.get(), false);
        put(*guard, "a", "new");
        put(*guard, "b", "new");
    }
    EXPECT_THAT(fileNames(), ElementsAre("a"));
    ASSERT_EQ(1U, log.entries().size());
    EXPECT_EQ("Cannot delete the unfinished file 'mem:///disks/a'.", log.entries()[0].message);
}

TEST_F(FileGuardTest, AbandonedDiskLeavesNothingThoughItMadeExtentsLate) {
    {
        yx::P<FileGuard> const guard = makeGuard();
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.fileSizeLimitBytes = kSplitLimit;
        request.createExtentFilesOnDemand = true;
        std::unique_ptr<SafeDisk> const disk =
            SafeDisk::create(guard.get(), uriOf("disk.vmdk"), request);
        writeTo(*disk, kSmallestDiskBytes - 10, pattern(10, 1));
        disk->flush();
        EXPECT_THAT(fileNames(), ElementsAre("disk-s00000.vmdk", "disk-s00002.vmdk", "disk.vmdk",
                                             "disk.vmdk.lock"));
    }
    EXPECT_THAT(fileNames(), ElementsAre());
}

TEST_F(FileGuardTest, StopsTheMakingOfFilesWhenItIsTold) {
    kelm::host::CancelFlag flag;
    {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), false, &flag);
        put(*guard, "a", "new");
        flag.set();
        EXPECT_THROW(put(*guard, "b", "new"), kelm::host::CancelledError);
        // What is there already can still be brought to an end.
        EXPECT_NO_THROW(put(*guard, "a", "NEW"));
        EXPECT_THAT(fileNames(), ElementsAre("a"));
    }
    EXPECT_THAT(fileNames(), ElementsAre());
}

} // namespace
} // namespace test_support
