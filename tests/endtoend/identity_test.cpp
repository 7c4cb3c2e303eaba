#include <csignal>

#include <unistd.h>

#include "tests/endtoend/tool_fixture.h"
#include "tests/support/safe_disks.h"
#include "yx/native_file_system.h"

namespace endtoend {

namespace {

/// That a disk is the file that was named, whatever names its descriptor and links have.
class Identity : public ToolTest {
protected:
    /// Makes a disk of an image of its own and returns the image's name.
    std::string import(std::string const& disk, unsigned int seed,
                       Arguments const& more = {}) const {
        std::string const image = "image" + std::to_string(seed);
        writeFile(image, makeImage(std::size_t{9} << 20, seed));
        runWell(joined({Arguments{"import", image, disk}, more}));
        return image;
    }

    void rename(std::string const& from, std::string const& to) const {
        std::filesystem::rename(path(from), path(to));
    }

    void expectContent(std::string const& disk, std::string const& image) const {
        EXPECT_EQ(runWell({"compare", image, disk}), "equal\n") << disk;
        EXPECT_EQ(runWell({"check", disk}), "") << disk;
        runWell({"export", disk, "out", "--force"});
        EXPECT_EQ(readFile("out").substr(0, readFile(image).size()), readFile(image)) << disk;
    }

    std::unique_ptr<kelm::host::SafeDisk> open(std::string const& name,
                                               yx::IIOStream::Access access) const {
        return std::make_unique<kelm::host::SafeDisk>(yx::makeObject<yx::CNativeFileSystem>().get(),
                                                      test_support::toURI(folder() / name), access,
                                                      "");
    }
};

TEST_F(Identity, ARenamedDiskIsItselfBesideANewOneOfItsOldName) {
    for (Arguments const& kind : {Arguments{}, Arguments{"--compressed"}}) {
        std::string const old = import("full.vmdk", 1, kind);
        rename("full.vmdk", "old.vmdk");
        std::string const fresh = import("full.vmdk", 2, kind);
        expectContent("old.vmdk", old);
        expectContent("full.vmdk", fresh);
        std::filesystem::remove(path("old.vmdk"));
        std::filesystem::remove(path("full.vmdk"));
    }
}

TEST_F(Identity, AChildRebasedToARenamedParentHasThatParentsContent) {
    std::string const old = import("full.vmdk", 1);
    runWell({"child", "full.vmdk", "child.vmdk"});
    rename("full.vmdk", "old.vmdk");
    import("full.vmdk", 2);
    runWell({"rebase", "child.vmdk", "--parent", "old.vmdk", "--trust"});
    expectContent("child.vmdk", old);
    runWell({"flatten", "child.vmdk"});
    expectContent("child.vmdk", old);
}

TEST_F(Identity, WritingToACopyLeavesTheOriginalAlone) {
    std::string const image = import("a.vmdk", 1);
    std::filesystem::copy(path("a.vmdk"), path("b.vmdk"));
    std::string const before = readFile("a.vmdk");
    {
        auto const copy = open("b.vmdk", yx::IIOStream::ReadWrite);
        copy->write(0, "changed", 7);
        copy->flush();
    }
    EXPECT_EQ(readFile("a.vmdk"), before);
    expectContent("a.vmdk", image);
    EXPECT_EQ(run({"compare", image, "b.vmdk"}).status, 1);
    EXPECT_NE(readFile("b.vmdk").find("SPARSE \"b.vmdk\""), std::string::npos);
}

TEST_F(Identity, ARenamedTextKeepsItsExtents) {
    std::string const image = import("a.vmdk", 1, {"--split", "4M"});
    rename("a.vmdk", "b.vmdk");
    expectContent("b.vmdk", image);
}

TEST_F(Identity, OneFileHasOneWriterByAllItsNames) {
    import("a.vmdk", 1);
    import("split.vmdk", 2, {"--split", "4M"});
    std::filesystem::create_directory(path("other"));
    std::filesystem::create_hard_link(path("a.vmdk"), path("other/hard.vmdk"));
    std::filesystem::create_symlink(path("a.vmdk"), path("soft.vmdk"));
    std::filesystem::copy(path("split.vmdk"), path("copy.vmdk"));
    auto const writer = open("a.vmdk", yx::IIOStream::ReadWrite);
    auto const splitWriter = open("split.vmdk", yx::IIOStream::ReadWrite);
    for (char const* const name :
         {"a.vmdk", "./other/../a.vmdk", "soft.vmdk", "other/hard.vmdk", "copy.vmdk"}) {
        for (std::string const& spelling : {std::string(name), path(name)}) {
            EXPECT_NE(run({"info", spelling}).err.find("The disk is in use"), std::string::npos)
                << spelling;
            EXPECT_THROW(open(spelling, yx::IIOStream::ReadWrite), yx::CLockFileError) << spelling;
        }
    }
}

TEST_F(Identity, AParentIsHeldByItsFileWhileAChildIsOpen) {
    import("base.vmdk", 1);
    runWell({"child", "base.vmdk", "child.vmdk"});
    std::filesystem::create_hard_link(path("base.vmdk"), path("hard.vmdk"));
    auto const child = open("child.vmdk", yx::IIOStream::ReadWrite);
    char byte = 0;
    child->read(0, &byte, 1);
    EXPECT_THROW(open("hard.vmdk", yx::IIOStream::ReadWrite), yx::CLockFileError);
    EXPECT_EQ(run({"info", "hard.vmdk"}).status, 0);
}

TEST_F(Identity, ExportDoesNotReplaceAParentThatWasReachedByALink) {
    std::string const image = import("base.vmdk", 1);
    std::filesystem::create_symlink("base.vmdk", path("link.vmdk"));
    std::filesystem::create_hard_link(path("base.vmdk"), path("hard.vmdk"));
    runWell({"child", "base.vmdk", "child.vmdk"});
    runWell({"rebase", "child.vmdk", "--parent", "base.vmdk"});
    std::string child = readFile("child.vmdk");
    std::size_t const hint = child.find("parentFileNameHint=\"base.vmdk\"");
    ASSERT_NE(hint, std::string::npos);
    patchFile("child.vmdk", hint, "parentFileNameHint=\"link.vmdk\"");
    for (char const* const target : {"base.vmdk", "link.vmdk", "hard.vmdk"})
        runBadly(2, {"export", "child.vmdk", target, "--force"});
    expectContent("base.vmdk", image);
    runBadly(2, {"export", "base.vmdk", "hard.vmdk", "--force"});
    expectContent("base.vmdk", image);
}

TEST_F(Identity, ADiskThatIsOpenByAnotherNameIsNotReplaced) {
    std::string const image = import("a.vmdk", 1);
    std::filesystem::create_directory(path("other"));
    std::filesystem::create_hard_link(path("a.vmdk"), path("other/a.vmdk"));
    auto reader = open("other/a.vmdk", yx::IIOStream::ReadOnly);
    EXPECT_NE(run({"import", image, "a.vmdk", "--force"}).status, 0);
    reader.reset();
    expectContent("a.vmdk", image);
}

TEST_F(Identity, OfTwoProgramsThatMakeADiskAtOnceOneLeavesItWhole) {
    writeFile("image1", makeImage(std::size_t{24} << 20, 1));
    writeFile("image2", makeImage(std::size_t{24} << 20, 2));
    for (int round = 0; round < 5; ++round) {
        std::filesystem::remove(path("disk.vmdk"));
        if (round > 0)
            runWell({"create", "disk.vmdk", "--size", "8M"});
        RunningTool first(folder(), {"import", "image1", "disk.vmdk", "--force"});
        RunningTool second(folder(), {"import", "image2", "disk.vmdk", "--force"});
        int const firstStatus = first.finish().status;
        int const secondStatus = second.finish().status;
        ASSERT_TRUE(firstStatus == 0 || secondStatus == 0) << round;
        // Where both say that they are done, one came after the other.
        bool const firstIsThere = run({"compare", "image1", "disk.vmdk"}).status == 0;
        bool const secondIsThere = run({"compare", "image2", "disk.vmdk"}).status == 0;
        EXPECT_TRUE((firstIsThere && firstStatus == 0) || (secondIsThere && secondStatus == 0))
            << round;
        EXPECT_EQ(runWell({"check", "disk.vmdk"}), "") << round;
    }
}

/// What a user who may only read sees beside the lock file of another one.
class OtherUser : public Identity {
protected:
    void SetUp() override {
        std::filesystem::permissions(folder(), std::filesystem::perms(0755));
        if (::geteuid() != 0 || runAsOther({"--version"}).status != 0)
            GTEST_SKIP() << "this takes root, and a program that others may run";
        m_image = import("a.vmdk", 1);
    }

    Outcome runAsOther(Arguments const& arguments) const {
        auto const becomeOther = [] {
            constexpr uid_t kNobody = 65534;
            if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0)
                ::_exit(1);
        };
        return RunningTool(folder(), arguments, becomeOther).finish();
    }

    void expectReadable() const {
        Outcome const outcome = runAsOther({"compare", m_image, "a.vmdk"});
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.out, "equal\n");
    }

    /// Lets the other user read the lock file, or not even that.
    void setLockFileMode(unsigned int mode) const {
        std::filesystem::permissions(path("a.vmdk.lock"), std::filesystem::perms(mode));
    }

    std::string m_image;
};

TEST_F(OtherUser, IsNotKeptOutByWhatAKilledProgramLeft) {
    {
        RunningTool killed(folder(), {"export", "a.vmdk", "-"});
        killed.readOutput(1);
        killed.signal(SIGKILL);
        EXPECT_EQ(killed.finish().status, -1);
    }
    for (unsigned int const mode : {0644U, 0600U}) {
        SCOPED_TRACE(mode);
        setLockFileMode(mode);
        expectReadable();
    }
}

TEST_F(OtherUser, ReadsBesideAReader) {
    RunningTool reader(folder(), {"export", "a.vmdk", "-"});
    reader.readOutput(1);
    for (unsigned int const mode : {0644U, 0600U}) {
        SCOPED_TRACE(mode);
        setLockFileMode(mode);
        expectReadable();
    }
    EXPECT_EQ(reader.finish().status, 0);
}

TEST_F(OtherUser, IsKeptOutByAWriter) {
    auto const writer = open("a.vmdk", yx::IIOStream::ReadWrite);
    for (unsigned int const mode : {0644U, 0600U}) {
        SCOPED_TRACE(mode);
        setLockFileMode(mode);
        EXPECT_EQ(runAsOther({"compare", m_image, "a.vmdk"}).status, 6);
    }
}

// Disks from strangers

/// That a disk's descriptor leads to nothing outside of its folder.
class Stranger : public Identity {
protected:
    Stranger() {
        std::filesystem::create_directory(path("received"));
        std::filesystem::create_directory(path("mine"));
        import("mine/private.vmdk", 1);
    }

    /// A descriptor as a stranger may have written it.
    void putDescriptor(std::string const& extents, std::string const& more = "") const {
        writeFile("received/disk.vmdk",
                  "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                  "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n" +
                      more + extents + std::string(1000, '\0'));
    }

    /// Expects that a command is refused in the words that name the file and the way out.
    void expectRefused(Arguments const& arguments, std::string const& file) const {
        Outcome const outcome = run(arguments);
        EXPECT_NE(outcome.status, 0);
        for (std::string const& part :
             {path(file), path("received"), std::string("--allow-path")}) {
            EXPECT_NE((outcome.out + outcome.err).find(part), std::string::npos)
                << part << " in " << outcome.out << outcome.err;
        }
    }
};

TEST_F(Stranger, CannotHaveAPrivateDiskExported) {
    std::string const extent = "RW 18432 SPARSE \"../mine/private.vmdk\"\n";
    putDescriptor(extent);
    for (Arguments const& arguments : {Arguments{"export", "received/disk.vmdk", "out"},
                                       {"info", "received/disk.vmdk"},
                                       {"check", "received/disk.vmdk"},
                                       {"convert", "received/disk.vmdk", "copy.vmdk"},
                                       {"child", "received/disk.vmdk", "child.vmdk"}})
        expectRefused(arguments, "mine/private.vmdk");
    EXPECT_EQ(listFiles().count("out"), 0U);
    runWell({"export", "received/disk.vmdk", "out", "--allow-path", "mine"});
    EXPECT_EQ(readFile("out"), readFile("image1"));
}

TEST_F(Stranger, CannotHaveAnotherDiskWrittenTo) {
    std::string const before = readFile("mine/private.vmdk");
    std::filesystem::create_symlink(path("mine/private.vmdk"), path("received/link.vmdk"));
    putDescriptor("RW 18432 SPARSE \"link.vmdk\"\n");
    expectRefused({"flatten", "received/disk.vmdk"}, "received/link.vmdk");
    EXPECT_EQ(readFile("mine/private.vmdk"), before);
}

TEST_F(Stranger, CannotHaveAFileMade) {
    runWell({"create", "received/first.vmdk", "--size", "8M"});
    putDescriptor("RW 16384 SPARSE \"first.vmdk\"\nRW 16384 SPARSE \"" + path("mine/bashrc") +
                      "\"\n",
                  "yxCreateExtentFilesOnDemand=\"true\"\n");
    EXPECT_THROW(open("received/disk.vmdk", yx::IIOStream::ReadWrite)->write(8 << 20, "echo", 4),
                 yx::CIOError);
    EXPECT_FALSE(std::filesystem::exists(path("mine/bashrc")));
}

TEST_F(Stranger, CannotHaveAParentsFileMadeOrWritten) {
    writeFile("mine/passwd", "root:x:0:0::/root:/bin/sh\n");
    runWell({"create", "received/first.vmdk", "--size", "8M"});
    writeFile("received/disk.vmdk", "version=1\nCID=1\nparentCID=2\nparentFileNameHint=\"" +
                                        path("mine/passwd") +
                                        "\"\ncreateType=\"twoGbMaxExtentSparse\"\n"
                                        "RW 16384 SPARSE \"first.vmdk\"\n");
    std::filesystem::permissions(path("mine"), std::filesystem::perms(0500));
    EXPECT_NE(run({"export", "received/disk.vmdk", "out"}).status, 0);
    std::filesystem::permissions(path("mine"), std::filesystem::perms(0700));
    EXPECT_EQ(readFile("mine/passwd"), "root:x:0:0::/root:/bin/sh\n");
}

TEST_F(Stranger, CannotAskForTooMuchUnlessAllowed) {
    runWell({"create", "received/first.vmdk", "--size", "8M"});
    putDescriptor("RW 16384 SPARSE \"first.vmdk\"\nRW 4294967296 SPARSE \"later.vmdk\"\n",
                  "yxCreateExtentFilesOnDemand=\"true\"\n");
    EXPECT_NE(runBadly(3, {"info", "received/disk.vmdk"}).find("--allow-oversize"),
              std::string::npos);
    runWell({"info", "received/disk.vmdk", "--allow-oversize"});
}

} // namespace

} // namespace endtoend
