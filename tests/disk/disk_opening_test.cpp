#include <gmock/gmock.h>

#include "tests/support/disk_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/grain_contents.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"

using testing::ElementsAre;

namespace test_support {
namespace disk_opening_test {

namespace {

constexpr char kURI[] = "mem:///disks/disk.vmdk";

class DiskOpening : public DiskTest {
protected:
    /// A text descriptor with these lines behind the head of a sound one.
    static std::string descriptor(std::string const& createType, std::string const& lines) {
        return "# Disk "
               "DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID="
               "ffffffff\ncreateType=\"" +
               createType + "\"\n" + lines;
    }

    static Props uriProps() { return {{"uri", kURI}}; }
};

TEST_F(DiskOpening, OtherCreateTypesAreRefused) {
    for (std::string const type : {"monolithicFlat", "MonolithicSparse", "", "vmfs"}) {
        putText("disk.vmdk", descriptor(type, "RW 128 SPARSE \"a.vmdk\"\n"));
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                                  "VMDK disk has an unsupported create type: '" + type + "'.",
                                  uriProps(), [&] { open(); }));
    }
}

TEST_F(DiskOpening, AbsentCreateTypeIsReportedByTheDescriptor) {
    putText("disk.vmdk", "version=1\nCID=1\n");
    EXPECT_TRUE(
        throwsError("VMDK descriptor value 'createType' not found.", Props{}, [&] { open(); }));
}

TEST_F(DiskOpening, EveryKnownCreateTypeIsTaken) {
    putExtent("a.vmdk", 4);
    for (char const* type : {"twoGbMaxExtentSparse", "streamOptimized", "monolithicSparse"}) {
        putText("disk.vmdk", descriptor(type, "RW 512 SPARSE \"a.vmdk\"\n"));
        EXPECT_EQ(512 * 512, open()->getSizeBytes()) << type;
    }
}

TEST_F(DiskOpening, OtherExtentTypesAreRefusedAlsoBehindGoodLines) {
    putExtent("a.vmdk", 4);
    putText("disk.vmdk", descriptor("twoGbMaxExtentSparse",
                                    "RW 512 SPARSE \"a.vmdk\"\nRW 512 FLAT \"b.vmdk\" 0\n"));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "VMDK disk has an unsupported extent type: 'FLAT'.", uriProps(),
                              [&] { open(); }));
    putText("disk.vmdk", descriptor("twoGbMaxExtentSparse", "RW 512 sparse \"a.vmdk\"\n"));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "VMDK disk has an unsupported extent type: 'sparse'.", uriProps(),
                              [&] { open(); }));
}

TEST_F(DiskOpening, DescriptorWithoutExtentsIsRefused) {
    putText("disk.vmdk", descriptor("twoGbMaxExtentSparse", "RW 512 ZERO\n"));
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, "VMDK disk has no extents.", uriProps(),
                              [&] { open(); }));
}

TEST_F(DiskOpening, ExtentSizesThatNoDiskCanHaveAreRefused) {
    struct Case {
        char const* lines;
        char const* size;
    };
    for (Case const& testCase :
         {Case{"RW -1 SPARSE \"a.vmdk\"\n", "-1"},
          Case{"RW 9223372036854775807 SPARSE \"a.vmdk\"\n", "9223372036854775807"},
          Case{"RW 9007199254740990 SPARSE \"a.vmdk\"\nRW 2 SPARSE \"b.vmdk\"\n", "2"}}) {
        putText("disk.vmdk", descriptor("twoGbMaxExtentSparse", testCase.lines));
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::CorruptData,
                          std::string("Invalid extent size in VMDK descriptor: ") + testCase.size,
                          uriProps(), [&] { open(); }))
            << testCase.lines;
    }
}

TEST_F(DiskOpening, AccessWordAndOffsetOfExtentLinesAreNotLookedAt) {
    putExtent("a.vmdk", 4);
    putText("disk.vmdk", descriptor("twoGbMaxExtentSparse", "NOACCESS 512 SPARSE \"a.vmdk\" 77\n"));
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    writeAt(*disk, 0, fromText("x"));
    EXPECT_EQ("x", toText(readAt(*disk, 0, 1)));
}

TEST_F(DiskOpening, MissingFirstExtentFailsAlsoOnDemand) {
    putText("disk.vmdk", descriptor("twoGbMaxExtentSparse", "yxCreateExtentFilesOnDemand=\"true\"\n"
                                                            "RW 512 SPARSE \"a.vmdk\"\n"));
    try {
        open();
        FAIL() << "the disk opened";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NotFound, error.getIOCode());
        EXPECT_EQ("mem:///disks/a.vmdk", error.getParams().find("uri")->toStdString());
    }
}

TEST_F(DiskOpening, GrainSizeAndCompressionComeFromTheFirstExtent) {
    putExtent("a.vmdk", 4, 16, true);
    putText("disk.vmdk", descriptor("streamOptimized", "RW 64 SPARSE \"a.vmdk\"\n"));
    yx::P<kelm::CVMDKDisk> const disk = open();
    EXPECT_EQ(16 * 512, disk->getGrainSizeBytes());
    EXPECT_TRUE(disk->getCompressed());
    EXPECT_TRUE(disk->createDataPreparer()->doesAnything());
}

TEST_F(DiskOpening, OpensNoExtentButTheFirstAndThatReadOnly) {
    create({.fileSizeLimit = kSplitLimit});
    yx::P<RecordingFileSystem> const recording = yx::makeObject<RecordingFileSystem>(files.get());
    kelm::CVMDKDisk const disk(recording.get(), uriOf("disk.vmdk"), yx::IIOStream::ReadWrite, "", 1,
                               nullptr, nullptr);
    std::vector<std::string> opened;
    for (std::string const& line : recording->lines({FileOperation::Kind::Open}))
        if (line.find(".lock") == std::string::npos)
            opened.push_back(line);
    EXPECT_THAT(opened, ElementsAre("open disk.vmdk rw", "open disk-s00000.vmdk r"));
}

TEST_F(DiskOpening, GettersTellOfTheDisk) {
    create({.compressed = true, .fileSizeLimit = kCompressedSplitLimit});
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(7);
    kelm::CVMDKDisk disk(files.get(), yx::CURI("mem:///disks/./x/../disk.vmdk"),
                         yx::IIOStream::ReadOnly, "", 1, cache.get(), nullptr);
    EXPECT_EQ(kSmallestDiskBytes, disk.getSizeBytes());
    EXPECT_EQ(kGrainBytes, disk.getGrainSizeBytes());
    EXPECT_TRUE(disk.getCompressed());
    EXPECT_EQ(uriOf("disk.vmdk"), disk.getMainFileURI());
    EXPECT_EQ(uriOf("disk.vmdk"), disk.getFirstExtentFileURI());
    EXPECT_TRUE(disk.getParentDiskMainURI().isEmpty());
    EXPECT_EQ(cache, disk.getGrainTableCache());
    EXPECT_EQ(0, disk.getPosition());
}

TEST_F(DiskOpening, ParentIsNamedButNotOpened) {
    create({}, "child.vmdk", 0, "../base/parent.vmdk", 42);
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadOnly, "", "child.vmdk");
    EXPECT_EQ("mem:///base/parent.vmdk", disk->getParentDiskMainURI().toString(true).toStdString());
}

TEST_F(DiskOpening, ParentThatIsHandedInIsTheOneThatIsRead) {
    create({}, "base.vmdk");
    writeAt(*open(yx::IIOStream::ReadWrite, "", "base.vmdk"), 100, fromText("base"));
    create({}, "child.vmdk", 0, "nowhere.vmdk", 42);
    yx::P<kelm::CVMDKDisk> const parent = open(yx::IIOStream::ReadOnly, "", "base.vmdk");
    kelm::CVMDKDisk child(files.get(), uriOf("child.vmdk"), yx::IIOStream::ReadOnly, "", 1, nullptr,
                          parent.get());
    EXPECT_EQ("base", toText(readAt(child, 100, 4)));
}

TEST_F(DiskOpening, ParentInUseIsGivenAndOpenedForThat) {
    unsigned int const id = create({}, "base.vmdk")->getDescriptor()->getContentID();
    create({}, "child.vmdk", 0, "base.vmdk", id);
    yx::P<kelm::CVMDKDisk> const child = open(yx::IIOStream::ReadOnly, "", "child.vmdk");
    yx::P<kelm::CVMDKDisk> const parent = child->getParentDisk();
    ASSERT_TRUE(parent);
    EXPECT_EQ("mem:///disks/base.vmdk", parent->getMainFileURI().toString(true).toStdString());
    EXPECT_EQ(child->getGrainTableCache(), parent->getGrainTableCache());
    EXPECT_EQ(parent, child->getParentDisk());
    EXPECT_FALSE(parent->getParentDisk());
}

TEST_F(DiskOpening, ParentThatHasChangedIsNotGiven) {
    test_support::LogCapture const quiet;
    create({}, "base.vmdk");
    create({}, "child.vmdk", 0, "base.vmdk", 42);
    EXPECT_TRUE(reportsCorruptData(
        [&] { open(yx::IIOStream::ReadOnly, "", "child.vmdk")->getParentDisk(); }));
}

TEST_F(DiskOpening, CacheServesTheWholeChain) {
    unsigned int const id = create({}, "base.vmdk")->getDescriptor()->getContentID();
    create({}, "child.vmdk", 0, "base.vmdk", id);
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>();
    kelm::CVMDKDisk child(files.get(), uriOf("child.vmdk"), yx::IIOStream::ReadOnly, "", 1,
                          cache.get(), nullptr);
    readAt(child, 0, 1);
    EXPECT_EQ(2, cache->getCachedTableCount());
}

TEST_F(DiskOpening, NoParentIDMeansNoParentWhateverTheHintSays) {
    putExtent("a.vmdk", 4);
    putText("disk.vmdk", descriptor("twoGbMaxExtentSparse", "parentFileNameHint=\"nowhere.vmdk\"\n"
                                                            "RW 512 SPARSE \"a.vmdk\"\n"));
    yx::P<kelm::CVMDKDisk> const disk = open();
    EXPECT_TRUE(disk->getParentDiskMainURI().isEmpty());
    EXPECT_TRUE(sameBytes(zeros(512), readAt(*disk, 0, 512)));
}

TEST_F(DiskOpening, ParentIDWithoutHintFails) {
    putExtent("a.vmdk", 4);
    putText("disk.vmdk", "version=1\nCID=1\nparentCID=2a\ncreateType=\"monolithicSparse\"\n"
                         "RW 512 SPARSE \"a.vmdk\"\n");
    EXPECT_TRUE(throwsError("VMDK descriptor value 'parentFileNameHint' not found.", Props{},
                            [&] { open(); }));
}

TEST_F(DiskOpening, FailureReleasesTheLock) {
    putText("disk.vmdk", descriptor("monolithicFlat", ""));
    EXPECT_THROW(open(yx::IIOStream::ReadWrite), yx::CIOError);
    EXPECT_THAT(fileNames(), ElementsAre("disk.vmdk"));
}

TEST_F(DiskOpening, StoreDescriptorWritesTheDisksCopy) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create(kind);
        {
            yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite, kind.password);
            disk->getDescriptor()->setAdapterType("ide");
            disk->storeDescriptor();
        }
        EXPECT_EQ("ide", open(yx::IIOStream::ReadOnly, kind.password)
                             ->getDescriptor()
                             ->getAdapterType()
                             .toStdString());
    }
}

TEST_F(DiskOpening, StoreDescriptorGoesThroughTheOpenExtentOfTheMainFile) {
    create({});
    yx::P<RecordingFileSystem> const recording = yx::makeObject<RecordingFileSystem>(files.get());
    kelm::CVMDKDisk disk(recording.get(), uriOf("disk.vmdk"), yx::IIOStream::ReadWrite, "", 1,
                         nullptr, nullptr);
    readAt(disk, 0, 1);
    recording->clear();
    disk.storeDescriptor();
    EXPECT_EQ(0u, recording->count({FileOperation::Kind::Open}));
    EXPECT_THAT(recording->lines(kChanges),
                ElementsAre("write disk.vmdk 512+33280", "flush disk.vmdk"));
}

TEST_F(DiskOpening, DescriptorOperationsNeedWriteAccess) {
    create({}, "disk.vmdk", 0, "parent.vmdk", 42);
    yx::P<kelm::CVMDKDisk> const disk = open();
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::storeDescriptor was called, but the disk "
                            "was not opened for writing.",
                            Props{}, [&] { disk->storeDescriptor(); }));
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::changeParentRelPath was called, but the "
                            "disk was not opened for writing.",
                            Props{}, [&] { disk->changeParentRelPath("other.vmdk"); }));
    EXPECT_EQ("parent.vmdk", disk->getDescriptor()->getParentFileNameHint().toStdString());
}

TEST_F(DiskOpening, ChangeParentRelPathReachesTheFile) {
    create({}, "disk.vmdk", 0, "parent.vmdk", 42);
    open(yx::IIOStream::ReadWrite)->changeParentRelPath("moved/parent.vmdk");
    EXPECT_EQ("mem:///disks/moved/parent.vmdk",
              open()->getParentDiskMainURI().toString(true).toStdString());
}

TEST_F(DiskOpening, FirstChangeOfAnOpeningGivesANewContentID) {
    create({.fileSizeLimit = kSplitLimit});
    unsigned int const atFirst = open()->getDescriptor()->getContentID();
    unsigned int inMemory = 0;
    {
        yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
        readAt(*disk, 0, 100);
        EXPECT_EQ(atFirst, disk->getDescriptor()->getContentID());
        writeAt(*disk, 0, fromText("one"));
        inMemory = disk->getDescriptor()->getContentID();
        EXPECT_NE(atFirst, inMemory);
        // In another extent, and in the same opening.
        writeAt(*disk, 8000000, fromText("two"));
        EXPECT_EQ(inMemory, disk->getDescriptor()->getContentID());
    }
    EXPECT_EQ(inMemory, open()->getDescriptor()->getContentID());
}

TEST_F(DiskOpening, ContentIDUpdatesCanBeSwitchedOff) {
    create({});
    unsigned int const atFirst = open()->getDescriptor()->getContentID();
    {
        yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
        disk->setContentIDUpdatesEnabled(false);
        writeAt(*disk, 0, fromText("one"));
    }
    EXPECT_EQ(atFirst, open()->getDescriptor()->getContentID());
}

TEST_F(DiskOpening, AutomaticTableFlushingIsPassedToTheCache) {
    create({});
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(0);
    kelm::CVMDKDisk disk(files.get(), uriOf("disk.vmdk"), yx::IIOStream::ReadOnly, "", 1,
                         cache.get(), nullptr);
    disk.setAutomaticGrainTableFlushingEnabled(false);
    readAt(disk, 0, 1);
    EXPECT_EQ(1, cache->getCachedTableCount());
    disk.setAutomaticGrainTableFlushingEnabled(true);
    EXPECT_EQ(0, cache->getCachedTableCount());
}

TEST_F(DiskOpening, FailedFlushAtTheEndOfADiskIsReported) {
    create({});
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    IgnoredExceptionCapture const ignored;
    {
        kelm::CVMDKDisk disk(faulty.get(), uriOf("disk.vmdk"), yx::IIOStream::ReadWrite, "", 1,
                             nullptr, nullptr);
        writeAt(disk, 0, fromText("x"));
        faulty->add({.kinds = {FileOperation::Kind::Write}, .sticky = true, .file = "disk.vmdk"});
    }
    ASSERT_FALSE(ignored.entries().empty());
    EXPECT_EQ((IgnoredExceptionCapture::Entry{"kelm::CVMDKDisk", "Injected failure.", true}),
              ignored.entries()[0]);
}

TEST_F(DiskOpening, EveryFailedOperationOfAnOpeningArrives) {
    using Kind = FileOperation::Kind;
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        create(kind);
        for (int nth = 1;; ++nth) {
            yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
            IgnoredExceptionCapture const ignored; // a lock file that could not be removed
            faulty->add({.kinds = {Kind::Read}, .nth = nth});
            auto const openOnce = [&] {
                kelm::CVMDKDisk const disk(faulty.get(), uriOf("disk.vmdk"),
                                           yx::IIOStream::ReadWrite, kind.password, 1, nullptr,
                                           nullptr);
            };
            bool failed = false;
            try {
                openOnce();
            } catch (yx::CError const&) {
                failed = true;
            }
            bool const arrived = failed || !ignored.entries().empty();
            EXPECT_EQ(arrived, faulty->hits() > 0);
            if (!failed)
                break;
            faulty->clear();
            EXPECT_NO_THROW(openOnce());
            ASSERT_LT(nth, 100);
        }
    }
}

} // namespace

} // namespace disk_opening_test
} // namespace test_support
