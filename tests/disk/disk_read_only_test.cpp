#include <gmock/gmock.h>

#include "tests/support/disk_fixture.h"
#include "tests/support/recording_file_system.h"

namespace test_support {
namespace {

using Kind = FileOperation::Kind;

class DiskReadOnly : public DiskTest {
protected:
    /// A child of some data over a parent of some data, both of this kind.
    void createChain(DiskKind const& kind) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        writeAt(*create(kind, "parent.vmdk"), 0, pattern(200000, 1));
        unsigned int const parentID = open(yx::IIOStream::ReadOnly, kind.password, "parent.vmdk")
                                          ->getDescriptor()
                                          ->getContentID();
        writeAt(*create(kind, "child.vmdk", kSmallestDiskBytes, "parent.vmdk", parentID), 4000000,
                pattern(200000, 2));
    }

    /// All that a reader can do with a disk, and what it should not.
    static void use(kelm::CVMDKDisk& disk) {
        EXPECT_TRUE(sameBytes(pattern(200000, 1), readAt(disk, 0, 200000)));
        EXPECT_TRUE(sameBytes(pattern(200000, 2), readAt(disk, 4000000, 200000)));
        readAt(disk, 0, static_cast<std::size_t>(kSmallestDiskBytes));
        Buffer grain;
        disk.seek(0);
        disk.readPreparedGrainData(grain);
        disk.gatherSpaceInfo();
        disk.seek(0);
        EXPECT_THROW(disk.write("x", 1), yx::CError);
        EXPECT_THROW(disk.writePreparedGrainData(grain), yx::CError);
        disk.flushChanges();
    }

    /// The openings of files and the changes of files, but for those of lock files.
    static std::vector<std::string> openingsAndChanges(RecordingFileSystem const& recording) {
        std::vector<std::string> lines;
        for (std::string const& line :
             recording.lines({Kind::Open, Kind::Write, Kind::SetLength, Kind::Delete})) {
            if (line.find(".lock") == std::string::npos)
                lines.push_back(line);
        }
        return lines;
    }
};

TEST_F(DiskReadOnly, NoFileOfAChainIsOpenedForWritingOrWritten) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        createChain(kind);
        auto const recording = yx::makeObject<RecordingFileSystem>(files.get());
        use(*yx::makeObject<kelm::CVMDKDisk>(recording.get(), uriOf("child.vmdk"),
                                             yx::IIOStream::ReadOnly, kind.password, 1, nullptr,
                                             nullptr));
        std::vector<std::string> const lines = openingsAndChanges(*recording);
        EXPECT_THAT(lines, testing::Contains("open parent.vmdk r"));
        EXPECT_THAT(lines, testing::Each(testing::AllOf(testing::StartsWith("open "),
                                                        testing::EndsWith(".vmdk r"))));
    }
}

} // namespace
} // namespace test_support
