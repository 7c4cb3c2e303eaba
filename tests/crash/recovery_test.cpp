// What power cuts can leave, one case at a time, and that the room `host/` closes each.

#include <algorithm>

#include "host/disk/slot_repair.h"
#include "tests/crash/crash_kinds.h"
#include "tests/support/extent_checker.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"
#include "tests/support/power_cut.h"
#include "tests/support/slot_sizes.h"

namespace test_support {
namespace {

constexpr int kGrainSizeBytes = static_cast<int>(kGrainBytes);

class Recovery : public testing::Test {
protected:
    std::unique_ptr<SafeDisk> create(CrashKind const& kind) {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        return SafeDisk::create(guard.get(), crashURI(kMainFile), requestFor(kind));
    }

    std::unique_ptr<SafeDisk> open(yx::IIOStream::Access access = kReadWrite) {
        return std::make_unique<SafeDisk>(files.get(), crashURI(kMainFile), access, "", 1);
    }

    /// A compressed disk whose grains 0 to 3 hold text, in slots just behind each other.
    void createCompressed() {
        std::unique_ptr<SafeDisk> const disk = create({kindNamed("compressed")});
        for (int grain = 0; grain < 4; ++grain)
            writeGrain(*disk, grain, textPattern(kGrainBytes, static_cast<unsigned int>(grain)));
        disk->flush();
    }

    void setSlotSize(int grain, __int64 sizeSectors) {
        test_support::setSlotSize(files.get(), crashURI(kMainFile), grain, sizeSectors);
    }

    void setContentID(unsigned int contentID) {
        yx::P<yx::IIOStream> const stream =
            kelm::openVMDKFileStream(files.get(), crashURI(kMainFile), kReadWrite);
        kelm::CVMDKDescriptorAccessor accessor(stream.get(), kReadWrite);
        accessor.getDescriptor()->setContentID(contentID);
        accessor.storeDescriptor(true);
        stream->close();
    }

    unsigned int storedContentID() {
        yx::P<yx::IIOStream> const stream =
            kelm::openVMDKFileStream(files.get(), crashURI(kMainFile), kReadOnly);
        return kelm::CVMDKDescriptorAccessor(stream.get(), kReadOnly)
            .getDescriptor()
            ->getContentID();
    }

    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
};

TEST_F(Recovery, BareGrainThatGrowsInASlotOfTheWrongSizeOverwritesItsNeighbour) {
    createCompressed();
    setSlotSize(0, 130);
    yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
        files.get(), crashURI(kMainFile), kReadWrite, "", 1, nullptr, nullptr);
    disk->write(pattern(kGrainBytes, 9).data(), kGrainSizeBytes);
    disk->flushChanges();
    Bytes content(kGrainBytes);
    disk->seek(kGrainBytes);
    EXPECT_THROW(disk->read(content.data(), kGrainSizeBytes), yx::CIOError);
}

TEST_F(Recovery, SlotThatReachesIntoTheNextIsCutDown) {
    for (int const grain : {0, 3}) {
        SCOPED_TRACE("grain " + std::to_string(grain));
        files = yx::makeObject<yx::CMemoryFileSystem>();
        createCompressed();
        setSlotSize(grain, 130);
        LogCapture const log;
        {
            std::unique_ptr<SafeDisk> const disk = open();
            ASSERT_EQ(1U, log.entries().size());
            EXPECT_EQ("Repaired the sizes of 1 slots in the extent file 'mem:///disks/disk.vmdk'.",
                      log.entries()[0].message);
            writeGrain(*disk, grain, pattern(kGrainBytes, 9));
            writeGrain(*disk, 7, textPattern(kGrainBytes, 7));
            disk->flush();
        }
        std::unique_ptr<SafeDisk> const disk = open(kReadOnly);
        for (int other = 0; other < 4; ++other) {
            Bytes const expected = other == grain
                                       ? pattern(kGrainBytes, 9)
                                       : textPattern(kGrainBytes, static_cast<unsigned int>(other));
            EXPECT_TRUE(sameBytes(expected, readGrain(*disk, other))) << "grain " << other;
        }
        EXPECT_TRUE(sameBytes(textPattern(kGrainBytes, 7), readGrain(*disk, 7)));
        EXPECT_EQ("", checkExtent(files->getFile(crashURI(kMainFile))).text());
    }
}

TEST_F(Recovery, BareGrainWithoutASlotCannotBeRead) {
    createCompressed();
    setSlotSize(2, 0);
    yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
        files.get(), crashURI(kMainFile), kReadOnly, "", 1, nullptr, nullptr);
    disk->seek(2 * kGrainBytes);
    Bytes content(kGrainBytes);
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open",
                                 "Invalid slot size for allocated compressed grain: 0 sectors",
                                 [&] { disk->read(content.data(), kGrainSizeBytes); }));
}

TEST_F(Recovery, GrainWithoutASlotIsReadAndGetsOneFromTheNextWriter) {
    createCompressed();
    setSlotSize(2, 0);
    Buffer const before = files->getFile(crashURI(kMainFile));
    LogCapture const log;
    EXPECT_TRUE(sameBytes(textPattern(kGrainBytes, 2), readGrain(*open(kReadOnly), 2)));
    EXPECT_TRUE(sameBytes(before, files->getFile(crashURI(kMainFile))));
    EXPECT_TRUE(log.entries().empty());
    EXPECT_TRUE(sameBytes(textPattern(kGrainBytes, 2), readGrain(*open(), 2)));
    EXPECT_EQ("", checkExtent(files->getFile(crashURI(kMainFile))).text());
}

TEST_F(Recovery, SoundSlotsAreLeftAlone) {
    createCompressed();
    Buffer const before = files->getFile(crashURI(kMainFile));
    LogCapture const log;
    open();
    EXPECT_TRUE(log.entries().empty());
    EXPECT_TRUE(sameBytes(before, files->getFile(crashURI(kMainFile))));
}

TEST_F(Recovery, NewContentIDIsStoredWhateverTheLengthOfTheOldOne) {
    create({});
    for (unsigned int const oldID :
         {0x1U, 0xFU, 0x10U, 0xABCDU, 0xFFFFFFFU, 0x1234567U, 0x10000000U, 0xFFFFFFFEU}) {
        setContentID(oldID);
        {
            std::unique_ptr<SafeDisk> const disk = open();
            writeGrain(*disk, 0, pattern(100, oldID));
            EXPECT_EQ(storedContentID(), disk->getDisk().getDescriptor()->getContentID());
        }
        unsigned int const newID = storedContentID();
        EXPECT_NE(oldID, newID);
    }
}

TEST_F(Recovery, ContentIDThatCannotBeStoredIsTriedAgain) {
    create({});
    unsigned int const oldID = storedContentID();
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    SafeDisk disk(faulty.get(), crashURI(kMainFile), kReadWrite, "", 1);
    faulty->add({.kinds = {FileOperation::Kind::Write}});
    EXPECT_THROW(writeGrain(disk, 0, pattern(100, 1)), yx::CIOError);
    EXPECT_EQ(oldID, disk.getDisk().getDescriptor()->getContentID());
    writeGrain(disk, 0, pattern(100, 1));
    EXPECT_NE(oldID, disk.getDisk().getDescriptor()->getContentID());
    EXPECT_EQ(storedContentID(), disk.getDisk().getDescriptor()->getContentID());
}

TEST_F(Recovery, NewDiskIsDurableWithAllItsFilesBeforeItIsHandedOut) {
    for (CrashKind const& kind : allCrashKinds()) {
        SCOPED_TRACE(kind.name());
        files = yx::makeObject<yx::CMemoryFileSystem>();
        makeParent(kind, files.get());
        FileImages const before = imagesOf(*files);
        yx::P<RecordingFileSystem> const record =
            yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(record.get(), false);
        guard->keep();
        SafeDisk::create(guard.get(), crashURI(kMainFile), requestFor(kind));
        PowerCut cut(before, record->entries());
        while (cut.step()) {
        }
        std::mt19937 random(1);
        FileImages left = cut.makeState(PowerCut::Loss::Everything, random).files;
        EXPECT_TRUE(imagesOf(*files) == left);
    }
}

/// A split disk whose second extent file is made on demand, and the URI of that file.
class OnDemandRecovery : public Recovery {
protected:
    OnDemandRecovery() {
        create({kindNamed("splitOnDemand")});
        m_secondGrain = extentStarts(files.get())[1];
    }

    std::set<std::string> fileNames() {
        std::set<std::string> names;
        for (yx::CURI const& uri : files->listFiles())
            names.insert(uri.getName().toStdString());
        return names;
    }

    /// What the library makes of the file before it holds grains.
    Bytes emptyExtentFile() {
        yx::P<yx::CMemoryFileSystem> const live = files;
        FileImages const images = imagesOf(*files);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        putImages(*files, images);
        {
            std::unique_ptr<SafeDisk> const disk = open();
            writeGrain(*disk, m_secondGrain, Bytes(1, 0));
        }
        Bytes const content = toBytes(files->getFile(m_file));
        files = live;
        return content;
    }

    int m_secondGrain;
    yx::CURI m_file = crashURI("disk-s00001.vmdk");
};

TEST_F(OnDemandRecovery, UnfinishedFileIsMovedAside) {
    Bytes const whole = emptyExtentFile();
    Bytes withHole = whole;
    std::fill_n(withHole.begin() + 512, 4096, static_cast<unsigned char>(0));
    yx::CURI const aside = crashURI("disk-s00001.vmdk.unfinished");
    for (Bytes const& content :
         {Bytes(), slice(whole, 0, 300), slice(whole, 0, 512), slice(whole, 0, 5000), withHole}) {
        files->putFile(m_file, toBuffer(content));
        files->deleteFile(aside, true);
        LogCapture const log;
        EXPECT_TRUE(sameBytes(zeros(kGrainBytes), readGrain(*open(kReadOnly), m_secondGrain)));
        EXPECT_TRUE(log.entries().empty());
        EXPECT_TRUE(sameBytes(content, toBytes(files->getFile(m_file))));
        {
            std::unique_ptr<SafeDisk> const disk = open();
            ASSERT_EQ(1U, log.entries().size());
            EXPECT_EQ("Moved the unfinished extent file 'mem:///disks/disk-s00001.vmdk' to "
                      "'mem:///disks/disk-s00001.vmdk.unfinished'. It holds no data.",
                      log.entries()[0].message);
            EXPECT_FALSE(files->fileExists(m_file));
            EXPECT_TRUE(sameBytes(content, toBytes(files->getFile(aside))));
            EXPECT_TRUE(sameBytes(zeros(kGrainBytes), readGrain(*disk, m_secondGrain)));
        }
        std::unique_ptr<SafeDisk> const disk = open();
        writeGrain(*disk, m_secondGrain, pattern(kGrainBytes, 5));
        disk->flush();
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 5), readGrain(*disk, m_secondGrain)));
    }
}

TEST_F(OnDemandRecovery, FileThatMayHoldDataOrBeSomebodysIsKept) {
    Bytes const whole = emptyExtentFile();
    Bytes withGrain;
    {
        std::unique_ptr<SafeDisk> const disk = open();
        writeGrain(*disk, m_secondGrain, pattern(kGrainBytes, 5));
        disk->flush();
        withGrain = toBytes(files->getFile(m_file));
    }
    std::fill_n(withGrain.begin(), 512, static_cast<unsigned char>(0));
    Bytes strange = whole;
    strange[4000] = 7;
    Bytes headless = whole;
    std::fill_n(headless.begin(), 512, static_cast<unsigned char>(0));
    for (Bytes const& content : {whole, withGrain, strange, headless, zeros(512), zeros(700),
                                 zeros(whole.size()), pattern(300, 1)}) {
        files->putFile(m_file, toBuffer(content));
        // Nor is it passed over.
        if (content != whole && content != strange) {
            EXPECT_THROW(readGrain(*open(kReadOnly), m_secondGrain), yx::CError);
        }
        open();
        EXPECT_TRUE(sameBytes(content, files->getFile(m_file)));
    }
}

} // namespace
} // namespace test_support
