#include "host/store/file_moving.h"

#include <fstream>

#include <gmock/gmock.h>

#include "host/store/sync_watch.h"
#include "host/system/file_identity.h"
#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "yx/native_file_system.h"

using kelm::host::identifyFile;
using kelm::host::moveAside;
using kelm::host::moveFile;
using kelm::host::SyncWatch;
using testing::ElementsAre;

namespace test_support {
namespace {

class FileMoving : public HostTest {
protected:
    yx::P<yx::CNativeFileSystem> native = yx::makeObject<yx::CNativeFileSystem>();
};

TEST_F(FileMoving, FileInMemoryIsCopiedAndDeleted) {
    Bytes const content = pattern(3000000, 1);
    files->putFile(uriOf("a"), toBuffer(content));
    moveFile(files.get(), uriOf("a"), uriOf("b"));
    EXPECT_THAT(fileNames(), ElementsAre("b"));
    EXPECT_TRUE(sameBytes(content, toBytes(files->getFile(uriOf("b")))));
}

TEST_F(FileMoving, FileOfTheSystemIsRenamed) {
    std::ofstream(pathOf("a")) << "content";
    auto const identity = identifyFile(folder.uri("a"));
    ASSERT_TRUE(identity);
    moveFile(native.get(), folder.uri("a"), folder.uri("b"));
    EXPECT_FALSE(std::filesystem::exists(pathOf("a")));
    EXPECT_EQ(identity, identifyFile(folder.uri("b")));
    // Also behind the memory of failed syncs, through which disks reach their files.
    moveFile(yx::makeObject<SyncWatch>(native.get()).get(), folder.uri("b"), folder.uri("c"));
    EXPECT_EQ(identity, identifyFile(folder.uri("c")));
}

TEST_F(FileMoving, NoFileIsReplaced) {
    putText("a", "a");
    putText("b", "b");
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "mem:///disks/b"}},
                              [&] { moveFile(files.get(), uriOf("a"), uriOf("b")); }));
    std::ofstream(pathOf("a")) << "a";
    std::ofstream(pathOf("b")) << "b";
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", folder.uri("b").toString(true).toStdString()}},
                              [&] { moveFile(native.get(), folder.uri("a"), folder.uri("b")); }));
    EXPECT_EQ(fromText("b"), readImage(pathOf("b")));
    EXPECT_EQ(fromText("a"), readImage(pathOf("a")));
}

TEST_F(FileMoving, MissingFileIsNotFound) {
    for (yx::IFileSystem* const system : {static_cast<yx::IFileSystem*>(native.get()),
                                          static_cast<yx::IFileSystem*>(files.get())}) {
        try {
            moveFile(system, folder.uri("a"), folder.uri("b"));
            ADD_FAILURE() << "a file was moved that is not there";
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(yx::CIOError::NotFound, error.getIOCode());
        }
    }
}

TEST_F(FileMoving, FailureLeavesTheFile) {
    putText("a", "content");
    for (FileOperation::Kind const kind :
         {FileOperation::Kind::Write, FileOperation::Kind::Flush, FileOperation::Kind::Read}) {
        yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
        faulty->add({.kinds = {kind}});
        EXPECT_THROW(moveAside(faulty.get(), uriOf("a"), "aside"), yx::CIOError);
        EXPECT_EQ("content", toText(toBytes(files->getFile(uriOf("a")))));
    }
}

TEST_F(FileMoving, NamesAsideAreCounted) {
    for (char const* const expected : {"a.aside", "a.aside.2", "a.aside.3"}) {
        putText("a", expected);
        EXPECT_EQ(uriOf(expected), moveAside(files.get(), uriOf("a"), "aside"));
    }
    EXPECT_EQ("a.aside.2", toText(toBytes(files->getFile(uriOf("a.aside.2")))));
}

class SyncWatchTest : public HostTest {
protected:
    yx::P<yx::IIOStream> openStream(std::string const& name) {
        unsigned int reserved = 0;
        return watch->openFile(uriOf(name), kReadWrite, &reserved);
    }

    yx::P<FaultyFileSystem> faulty = yx::makeObject<FaultyFileSystem>(files.get());
    yx::P<SyncWatch> watch = yx::makeObject<SyncWatch>(faulty.get());
};

TEST_F(SyncWatchTest, FirstFailureIsFinalForAllThatWrite) {
    yx::P<yx::IIOStream> const first = openStream("a");
    yx::P<yx::IIOStream> const second = openStream("b");
    first->write("x", 1, nullptr);
    second->write("x", 1, nullptr);
    EXPECT_NO_THROW(watch->verifyNoneFailed());
    faulty->add({.kinds = {FileOperation::Kind::Flush}, .file = "a"});
    EXPECT_THROW(first->flush(), yx::CIOError);
    faulty->clear();
    auto const expectFinal = [](std::function<void()> const& action) {
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Injected failure.",
                                  {{"uri", "mem:///disks/a"}}, action));
    };
    expectFinal([&] { first->flush(); });
    expectFinal([&] { second->flush(); });
    expectFinal([&] { watch->verifyNoneFailed(); });
    yx::P<yx::IIOStream> const third = openStream("a");
    EXPECT_NO_THROW(third->flush());
    third->write("y", 1, nullptr);
    expectFinal([&] { third->flush(); });
}

TEST_F(SyncWatchTest, OtherFailuresAreTriedAgain) {
    yx::P<yx::IIOStream> const stream = openStream("a");
    faulty->add({.kinds = {FileOperation::Kind::Write}, .code = yx::CIOError::NoSpace});
    EXPECT_THROW(stream->write("x", 1, nullptr), yx::CIOError);
    stream->write("x", 1, nullptr);
    EXPECT_NO_THROW(stream->flush());
    EXPECT_NO_THROW(watch->verifyNoneFailed());
}

} // namespace
} // namespace test_support
