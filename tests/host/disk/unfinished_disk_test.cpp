// A disk that is being filled says that it is unfinished, until all of it is on the device.

#include "host/disk/unfinished_disk.h"

#include "host/check/disk_check.h"
#include "host/disk/disk_record.h"
#include "host/disk/parent_chain.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/log_capture.h"
#include "tests/support/power_cut.h"

namespace test_support {
namespace {

using kelm::host::DiskRecord;
using kelm::host::DiskState;
using kelm::host::DiskTrust;
using kelm::host::UnfinishedDiskError;
using kelm::host::UnfinishedDisks;

constexpr int kFilledGrains = 6;

class UnfinishedDisk : public HostTest {
protected:
    static NewDisk toBeFilled(DiskKind const& kind) {
        NewDisk request = requestFor(kind);
        request.isToBeFilled = true;
        request.imageBytes = 5000000;
        request.source = "/dev/sdb";
        return request;
    }

    std::unique_ptr<SafeDisk> createToBeFilled(yx::IFileSystem* fileSystem, DiskKind const& kind,
                                               std::string const& name = "disk.vmdk") {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(fileSystem, false);
        guard->keep();
        return SafeDisk::create(guard.get(), uriOf(name), toBeFilled(kind));
    }

    std::unique_ptr<SafeDisk> openTrusted(std::string const& name, UnfinishedDisks which,
                                          yx::IIOStream::Access access = kReadOnly,
                                          char const* password = "") {
        DiskTrust trust;
        trust.unfinished = which;
        return std::make_unique<SafeDisk>(files.get(), uriOf(name), access, password, 1,
                                          kelm::CVMDKGrainTableCache::kDefaultLimit, trust);
    }

    static DiskState stateOf(SafeDisk& disk) {
        return DiskRecord(*disk.getDisk().getDescriptor()).getState();
    }

    static Bytes contentOf(int grain) {
        return textPattern(kGrainBytes, static_cast<unsigned int>(grain + 1));
    }

    static void fill(SafeDisk& disk) {
        for (int grain = 0; grain < kFilledGrains; ++grain)
            writeGrain(disk, grain, contentOf(grain));
    }

    static bool isFilled(SafeDisk& disk) {
        for (int grain = 0; grain < kFilledGrains; ++grain) {
            if (readGrain(disk, grain) != contentOf(grain))
                return false;
        }
        return true;
    }

    void expectRefused(std::string const& name, std::string const& unfinished,
                       char const* password = "") {
        for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite}) {
            try {
                openSafe(name, access, password);
                ADD_FAILURE() << "opened";
            } catch (UnfinishedDiskError const& error) {
                EXPECT_STREQ("The disk is unfinished: it has not been filled to its end.",
                             error.what());
                EXPECT_EQ(-1, error.getCode());
                EXPECT_EQ((Props{{"uri", uriOf(unfinished).toString(true).toStdString()}}),
                          propsOf(error));
            }
            EXPECT_FALSE(files->fileExists(uriOf(name + ".lock")));
        }
    }
};

TEST_F(UnfinishedDisk, IsRefusedUntilItIsMarkedComplete) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        {
            std::unique_ptr<SafeDisk> const disk = createToBeFilled(files.get(), kind);
            fill(*disk);
            disk->flush();
        }
        expectRefused("disk.vmdk", "disk.vmdk", kind.password);
        {
            std::unique_ptr<SafeDisk> const disk =
                openTrusted("disk.vmdk", UnfinishedDisks::InChain, kReadOnly, kind.password);
            EXPECT_EQ(DiskState::Unfinished, stateOf(*disk));
            EXPECT_TRUE(isFilled(*disk));
            DiskRecord const record(*disk->getDisk().getDescriptor());
            EXPECT_EQ(5000000, record.getImageBytes(disk->getSizeBytes()));
            EXPECT_EQ("/dev/sdb", record.getSource());
        }
        openTrusted("disk.vmdk", UnfinishedDisks::Itself, kReadWrite, kind.password)
            ->markComplete();
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadWrite, kind.password);
        EXPECT_EQ(DiskState::Complete, stateOf(*disk));
        EXPECT_TRUE(isFilled(*disk));
    }
}

TEST_F(UnfinishedDisk, IsNoParent) {
    { createSafe({}, "parent.vmdk"); }
    { createSafe({}, "child.vmdk", "parent.vmdk"); }
    { createSafe({}, "grandchild.vmdk", "child.vmdk"); }
    std::unique_ptr<SafeDisk> parent = openSafe("parent.vmdk");
    DiskRecord(*parent->getDisk().getDescriptor()).setState(DiskState::Unfinished);
    parent->storeDescriptor();
    parent.reset();

    EXPECT_THROW(createSafe({}, "other.vmdk", "parent.vmdk"), UnfinishedDiskError);
    EXPECT_FALSE(files->fileExists(uriOf("other.vmdk")));
    for (char const* name : {"child.vmdk", "grandchild.vmdk"}) {
        for (UnfinishedDisks const which : {UnfinishedDisks::Refused, UnfinishedDisks::Itself}) {
            std::unique_ptr<SafeDisk> const disk = openTrusted(name, which);
            EXPECT_THROW(kelm::host::openParents(files.get(), *disk, ""), UnfinishedDiskError);
            EXPECT_THROW(readGrain(*disk, 0), yx::CError);
        }
        std::unique_ptr<SafeDisk> const disk = openTrusted(name, UnfinishedDisks::InChain);
        EXPECT_NO_THROW(kelm::host::openParents(files.get(), *disk, ""));
        EXPECT_EQ(zeros(kGrainBytes), readGrain(*disk, 0));
    }
}

TEST_F(UnfinishedDisk, IsAFindingOfTheCheck) {
    { createToBeFilled(files.get(), {}); }
    std::vector<std::string> findings;
    kelm::host::checkDisk(files.get(), uriOf("disk.vmdk"), "", {},
                          [&](yx::CURI const& file, std::string const& text) {
                              findings.push_back(file.getName().toStdString() + ": " + text);
                          });
    EXPECT_EQ(
        std::vector<std::string>{
            "disk.vmdk: the disk is unfinished: it has not been filled to its end"},
        findings);
}

TEST_F(UnfinishedDisk, IsMarkedByAChangeThatMovesNoLine) {
    { fill(*createToBeFilled(files.get(), {})); }
    yx::TBuffer<unsigned char> const before = files->getFile(uriOf("disk.vmdk"));
    openTrusted("disk.vmdk", UnfinishedDisks::Itself, kReadWrite)->markComplete();
    yx::TBuffer<unsigned char> const after = files->getFile(uriOf("disk.vmdk"));
    ASSERT_EQ(before.getUsed(), after.getUsed());
    int first = before.getUsed();
    int last = 0;
    for (int at = 0; at < before.getUsed(); ++at) {
        if (before.getData()[at] != after.getData()[at]) {
            first = std::min(first, at);
            last = at;
        }
    }
    EXPECT_LT(first, last);
    EXPECT_LT(last - first, 10);
}

/// Whatever a power cut leaves of a disk that is made and filled: it is refused, or it is whole.
TEST_F(UnfinishedDisk, NeverPassesForAWholeOneWhereverThePowerIsCut) {
    LogCapture const quiet;
    for (char const* const name : {"plain", "compressed", "split", "splitOnDemand"}) {
        SCOPED_TRACE(name);
        DiskKind const& kind = kindNamed(name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        FileImages const start = imagesOf(*files);
        auto const record =
            yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
        {
            std::unique_ptr<SafeDisk> const disk = createToBeFilled(record.get(), kind);
            fill(*disk);
            disk->markComplete();
        }
        PowerCut cut(start, record->entries());
        std::mt19937 random(11);
        auto const end = files;
        files = yx::makeObject<yx::CMemoryFileSystem>();
        int refused = 0;
        int whole = 0;
        while (cut.step()) {
            if (!cut.hasChanged())
                continue;
            for (PowerCut::Loss const loss :
                 {PowerCut::Loss::Nothing, PowerCut::Loss::AnySectors}) {
                PowerCut::State const left = cut.makeState(loss, random);
                if (!left.isNew)
                    continue;
                putImages(*files, left.files);
                try {
                    std::unique_ptr<SafeDisk> const disk =
                        openSafe("disk.vmdk", kReadOnly, kind.password);
                    EXPECT_TRUE(isFilled(*disk)) << "after " << cut.operations() << " operations";
                    ++whole;
                } catch (yx::CError const&) {
                    ++refused;
                }
            }
        }
        EXPECT_GT(refused, 20);
        EXPECT_GT(whole, 0);
        files = end;
        EXPECT_TRUE(isFilled(*openSafe("disk.vmdk", kReadOnly, kind.password)));
    }
}

} // namespace
} // namespace test_support
