#include "host/disk/former_disk.h"

#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"
#include "yx/native_file_system.h"

using kelm::host::FormerDisk;
using testing::ElementsAre;
using testing::IsEmpty;

namespace test_support {
namespace {

class FormerDiskTest : public HostTest {
protected:
    std::vector<std::string> extentFiles(std::string const& name = "disk.vmdk") {
        FormerDisk const former(files.get(), uriOf(name));
        std::vector<std::string> names;
        for (yx::CURI const& uri : former.getFiles())
            names.push_back(uri.getName().toStdString());
        return names;
    }

    void putDescriptor(std::string const& extentFile) {
        putText("disk.vmdk", "version=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID=ffffffff\n"
                             "createType=\"twoGbMaxExtentSparse\"\nRW 128 SPARSE \"" +
                                 extentFile + "\"\n");
    }
};

TEST_F(FormerDiskTest, KnowsTheExtentFilesOfASplitDisk) {
    { createSafe({.fileSizeLimit = kSplitLimit}); }
    EXPECT_THAT(extentFiles(),
                ElementsAre("disk-s00000.vmdk", "disk-s00001.vmdk", "disk-s00002.vmdk"));
}

TEST_F(FormerDiskTest, KnowsTheDigestsOfTheDisk) {
    putText("disk.vmdk.digests", "KELMDGST");
    EXPECT_THAT(extentFiles(), IsEmpty()) << "there is no disk";
    { createSafe({}); }
    EXPECT_THAT(extentFiles(), ElementsAre("disk.vmdk.digests"));
    files->putFile(uriOf("disk.vmdk.digests"), toBuffer(zeros(512)));
    EXPECT_THAT(extentFiles(), ElementsAre("disk.vmdk.digests")) << "they are not finished";
    putText("disk.vmdk.digests", "somebody's own");
    EXPECT_THAT(extentFiles(), IsEmpty());
}

TEST_F(FormerDiskTest, NeedsNoPassword) {
    { createSafe({.compressed = true, .fileSizeLimit = kCompressedSplitLimit, .password = "x"}); }
    EXPECT_THAT(extentFiles(), ElementsAre("disk-s00001.vmdk", "disk-s00002.vmdk",
                                           "disk-s00003.vmdk", "disk-s00004.vmdk"));
}

TEST_F(FormerDiskTest, LeavesOutFilesThatAreStillToBeMade) {
    { createSafe({.fileSizeLimit = kSplitLimit, .onDemand = true}); }
    EXPECT_THAT(extentFiles(), ElementsAre("disk-s00000.vmdk"));
}

TEST_F(FormerDiskTest, LeavesAFileThatSomebodyHasPutThereMeanwhile) {
    yx::P<yx::CNativeFileSystem> const native = yx::makeObject<yx::CNativeFileSystem>();
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(native.get(), false);
    guard->keep();
    SafeDisk::create(guard.get(), folder.uri("disk.vmdk"),
                     requestFor({.fileSizeLimit = kSplitLimit}, kSmallestDiskBytes));
    FormerDisk former(native.get(), folder.uri("disk.vmdk"));
    std::ofstream(pathOf("another")) << "another";
    std::filesystem::rename(pathOf("another"), pathOf("disk-s00001.vmdk"));
    former.removeFilesBut({});
    EXPECT_FALSE(std::filesystem::exists(pathOf("disk-s00000.vmdk")));
    EXPECT_EQ(fromText("another"), readImage(pathOf("disk-s00001.vmdk")));
    EXPECT_FALSE(std::filesystem::exists(pathOf("disk-s00002.vmdk")));
}

TEST_F(FormerDiskTest, HasNoneWhereThereIsNoSplitDisk) {
    EXPECT_THAT(extentFiles(), IsEmpty());
    putText("disk.vmdk", "precious");
    EXPECT_THAT(extentFiles(), IsEmpty());
    putText("disk.vmdk", "");
    EXPECT_THAT(extentFiles(), IsEmpty());
    files->deleteFile(uriOf("disk.vmdk"), false);
    { createSafe({}); }
    EXPECT_THAT(extentFiles(), IsEmpty());
}

TEST_F(FormerDiskTest, BelievesNoDescriptorThatNamesOtherFiles) {
    for (char const* name : {"disk-s1.vmdk", "disk-s00001.vmdk"}) {
        putExtent(name, 1);
        putDescriptor(name);
        EXPECT_THAT(extentFiles(), ElementsAre(name));
    }
    for (std::string const name :
         {"other.vmdk", "disk.vmdk", "disk-s.vmdk", "disk-s0x1.vmdk", "disk-s00001.img",
          "other-s00001.vmdk", "sub/disk-s00001.vmdk", "../disk-s00001.vmdk"}) {
        SCOPED_TRACE(name);
        if (name != "disk.vmdk")
            putExtent(name, 1);
        putDescriptor(name);
        EXPECT_THAT(extentFiles(), IsEmpty());
    }
    // Of the right name, but not what a splitting makes: a text, and a disk of its own.
    putText("disk-s00009.vmdk", "precious");
    putDescriptor("disk-s00009.vmdk");
    EXPECT_THAT(extentFiles(), IsEmpty());
    { createSafe({}, "disk-s00008.vmdk"); }
    putDescriptor("disk-s00008.vmdk");
    EXPECT_THAT(extentFiles(), IsEmpty());
}

TEST_F(FormerDiskTest, RemovesTheFilesButThoseToKeep) {
    { createSafe({.fileSizeLimit = kSplitLimit}); }
    FormerDisk former(files.get(), uriOf("disk.vmdk"));
    former.removeFilesBut({uriOf("disk.vmdk"), uriOf("disk-s00001.vmdk")});
    EXPECT_THAT(fileNames(), ElementsAre("disk-s00001.vmdk", "disk.vmdk"));
    EXPECT_NO_THROW(former.removeFilesBut({uriOf("disk-s00001.vmdk")}));
}

TEST_F(FormerDiskTest, WarnsOfWhatItCannotRemove) {
    { createSafe({.fileSizeLimit = kSplitLimit}); }
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    faulty->add({.kinds = {FileOperation::Kind::Delete}, .file = "disk-s00001.vmdk"});
    LogCapture log;
    FormerDisk(faulty.get(), uriOf("disk.vmdk")).removeFilesBut({});
    EXPECT_THAT(fileNames(), ElementsAre("disk-s00001.vmdk", "disk.vmdk"));
    ASSERT_EQ(1U, log.entries().size());
    EXPECT_EQ("Cannot delete the file 'mem:///disks/disk-s00001.vmdk' of the disk that was "
              "replaced.",
              log.entries()[0].message);
}

} // namespace
} // namespace test_support
