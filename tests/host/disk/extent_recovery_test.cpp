#include "host/disk/extent_recovery.h"

#include <gmock/gmock.h>

#include "host/disk/extent_creation.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"

using kelm::host::createExtentFileDurably;
using kelm::host::DiskExtent;
using kelm::host::makeExtentFileContent;
using kelm::host::moveAsideIfUnfinished;
using testing::ElementsAre;

namespace test_support {
namespace {

class ExtentRecoveryTest : public HostTest {
protected:
    DiskExtent extentAt(std::string const& name) {
        return {uriOf(name).toNormalized(), 0, 64 * kGrainBytes, kGrainBytes, false};
    }

    Bytes whole() { return toBytes(makeExtentFileContent(extentAt("disk-s00001.vmdk"), {})); }

    /// The names in the folder after a look at a file of that name and content.
    std::vector<std::string> namesAfter(std::string const& name, Bytes const& content) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        files->putFile(uriOf(name), toBuffer(content));
        LogCapture const log;
        moveAsideIfUnfinished(files.get(), uriOf("disk.vmdk").toNormalized(), extentAt(name), {});
        std::vector<std::string> names;
        for (std::string const& left : fileNames()) {
            names.push_back(left);
            EXPECT_TRUE(sameBytes(content, toBytes(files->getFile(uriOf(left))))) << left;
        }
        return names;
    }

    static constexpr char kName[] = "disk-s00001.vmdk";
    static constexpr char kAside[] = "disk-s00001.vmdk.unfinished";
};

TEST_F(ExtentRecoveryTest, MovesAsideWhatBeginsAsAnEmptyExtentOfTheDisk) {
    Bytes withHole = whole();
    std::fill_n(withHole.begin() + 512, 4096, static_cast<unsigned char>(0));
    for (Bytes const& content : {Bytes(), slice(whole(), 0, 100), slice(whole(), 0, 512),
                                 slice(whole(), 0, 5000), withHole})
        EXPECT_THAT(namesAfter(kName, content), ElementsAre(kAside)) << content.size();
}

TEST_F(ExtentRecoveryTest, LeavesAFinishedFile) {
    EXPECT_THAT(namesAfter(kName, whole()), ElementsAre(kName));
}

TEST_F(ExtentRecoveryTest, LeavesTheFilesOfOthers) {
    Bytes headless = whole();
    std::fill_n(headless.begin(), 512, static_cast<unsigned char>(0));
    Bytes changed = whole();
    changed[4000] = 7;
    DiskExtent larger = extentAt(kName);
    larger.endBytes *= 2;
    Bytes const ofAnotherDisk = slice(toBytes(makeExtentFileContent(larger, {})), 0, 512);
    Bytes longer = whole();
    longer.push_back(0);
    for (Bytes const& content : {pattern(300, 1), pattern(512, 1), zeros(1), zeros(512), zeros(700),
                                 zeros(whole().size()), headless, changed, ofAnotherDisk, longer})
        EXPECT_THAT(namesAfter(kName, content), ElementsAre(kName)) << content.size();
}

TEST_F(ExtentRecoveryTest, LeavesFilesOfOtherNamesAndFolders) {
    for (std::string const name :
         {"id_rsa", "disk.vmdk", "other-s00001.vmdk", "disk-s1.img", "sub/disk-s00001.vmdk"}) {
        files->putFile(uriOf(name), toBuffer(slice(whole(), 0, 512)));
        moveAsideIfUnfinished(files.get(), uriOf("disk.vmdk").toNormalized(), extentAt(name), {});
        EXPECT_TRUE(files->fileExists(uriOf(name))) << name;
    }
}

TEST_F(ExtentRecoveryTest, ReplacesNothingWhereItMovesTo) {
    putText(kAside, "first");
    putText(std::string(kAside) + ".2", "second");
    files->putFile(uriOf(kName), toBuffer(slice(whole(), 0, 512)));
    LogCapture const log;
    moveAsideIfUnfinished(files.get(), uriOf("disk.vmdk").toNormalized(), extentAt(kName), {});
    EXPECT_THAT(fileNames(),
                ElementsAre(kAside, std::string(kAside) + ".2", std::string(kAside) + ".3"));
    EXPECT_EQ("first", toText(toBytes(files->getFile(uriOf(kAside)))));
    ASSERT_EQ(1U, log.entries().size());
    EXPECT_EQ("Moved the unfinished extent file 'mem:///disks/disk-s00001.vmdk' to "
              "'mem:///disks/disk-s00001.vmdk.unfinished.3'. It holds no data.",
              log.entries()[0].message);
}

TEST_F(ExtentRecoveryTest, OpeningForWritingTouchesNoFileThatADescriptorMerelyNames) {
    createSafe({"demand", false, kSplitLimit, "", true});
    std::string text = textOf("disk.vmdk");
    std::size_t const at = text.find(kName);
    ASSERT_NE(std::string::npos, at);
    text.replace(at, std::string(kName).size(), "../keys/id_rsa");
    text.resize(text.size() + 1000);
    putText("disk.vmdk", text);
    yx::CURI const key("mem:///keys/id_rsa");
    files->putFile(key, toBuffer(pattern(400, 1)));
    EXPECT_THROW(openSafe(), yx::CIOError);
    EXPECT_TRUE(sameBytes(pattern(400, 1), toBytes(files->getFile(key))));

    kelm::host::DiskTrust trust;
    trust.allowedPaths.push_back(yx::CURI("mem:///keys"));
    SafeDisk(files.get(), uriOf("disk.vmdk"), kReadWrite, "", 1,
             kelm::CVMDKGrainTableCache::kDefaultLimit, trust);
    EXPECT_TRUE(sameBytes(pattern(400, 1), toBytes(files->getFile(key))));
}

TEST_F(ExtentRecoveryTest, FileIsMadeWithItsFirstSectorOnTheDeviceBeforeTheRest) {
    using Kind = FileOperation::Kind;
    yx::P<RecordingFileSystem> const record =
        yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
    createExtentFileDurably(record.get(), extentAt(kName), {});
    std::vector<std::string> operations;
    for (RecordingFileSystem::Entry const& entry : record->entries()) {
        if (entry.operation.kind == Kind::Write || entry.operation.kind == Kind::Flush)
            operations.push_back(toText(entry.operation));
    }
    std::string const rest = "write disk-s00001.vmdk 512+" + std::to_string(whole().size() - 512);
    EXPECT_THAT(operations, ElementsAre("write disk-s00001.vmdk 0+512", "flush disk-s00001.vmdk",
                                        rest, "flush disk-s00001.vmdk"));
    EXPECT_TRUE(sameBytes(whole(), toBytes(files->getFile(uriOf(kName)))));
}

} // namespace
} // namespace test_support
