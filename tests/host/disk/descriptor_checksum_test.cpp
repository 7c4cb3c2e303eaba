#include "host/disk/descriptor_checksum.h"

#include "host/disk/disk_record.h"
#include "host/disk/parent_link.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"

using kelm::CVMDKDescriptor;
using kelm::host::ChecksumState;
using kelm::host::DiskRecord;
using kelm::host::DiskState;
using kelm::host::getChecksumState;
using kelm::host::updateChecksum;

namespace test_support {
namespace {

CVMDKDescriptor parse(std::string const& text) {
    return CVMDKDescriptor(toBuffer({text.begin(), text.end()}));
}

std::string textOf(CVMDKDescriptor const& descriptor) {
    return descriptor.toString().toStdString();
}

constexpr char kPlainText[] = "# Disk DescriptorFile\n"
                              "version=1\n"
                              "encoding=\"UTF-8\"\n"
                              "CID=12345678\n"
                              "parentCID=ffffffff\n"
                              "ddb.kelm.state = \"unfinished\"\n"
                              "RW 131072 SPARSE \"full.vmdk\"\n"
                              "RW 131072 SPARSE \"full-s00001.vmdk\" 8\n"
                              "\n"
                              "# The Disk Data Base\n"
                              "ddb.adapterType = \"lsilogic\"\n";

yx::CURI const kMainFile("mem:///disks/full.vmdk");

bool isFree(std::string const& line, std::size_t at) {
    bool const isValue = at > line.find('=');
    if (line.starts_with("CID=") || line.starts_with("ddb.kelm.state"))
        return isValue;
    return line.starts_with('#') && at > 0;
}

TEST(DescriptorChecksum, CoversEveryByteThatMeansSomething) {
    CVMDKDescriptor descriptor = parse(kPlainText);
    updateChecksum(descriptor, kMainFile);
    std::string const text = textOf(descriptor);
    EXPECT_EQ(ChecksumState::Valid, getChecksumState(parse(text), kMainFile));
    // But for the text's last line end, which ends nothing.
    for (std::size_t at = 0; at + 1 < text.size(); ++at) {
        std::string changed = text;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        std::size_t const lineStart = text.rfind('\n', at) + 1;
        std::string const line = text.substr(lineStart, text.find('\n', at) - lineStart);
        ChecksumState const state = getChecksumState(parse(changed), kMainFile);
        if (text[at] != '\n' && isFree(line, at - lineStart))
            EXPECT_EQ(ChecksumState::Valid, state) << at << ": " << changed;
        else
            EXPECT_NE(ChecksumState::Valid, state) << at << ": " << changed;
    }
}

TEST(DescriptorChecksum, StaysTrueWhereAValueHasToChangeAlone) {
    CVMDKDescriptor descriptor = parse(kPlainText);
    updateChecksum(descriptor, kMainFile);
    DiskRecord(descriptor).setState(DiskState::Complete);
    descriptor.setContentID(1);
    EXPECT_EQ(ChecksumState::Valid, getChecksumState(descriptor, kMainFile));
    descriptor.setParentContentID(7);
    EXPECT_EQ(ChecksumState::Different, getChecksumState(descriptor, kMainFile));
}

TEST(DescriptorChecksum, LeavesOutTheNameOfTheFileItIsIn) {
    CVMDKDescriptor descriptor = parse(kPlainText);
    updateChecksum(descriptor, kMainFile);
    std::string text = textOf(descriptor);
    text.replace(text.find("full.vmdk"), 9, "of last week.vmdk");
    CVMDKDescriptor const renamed = parse(text);
    EXPECT_EQ(ChecksumState::Valid,
              getChecksumState(renamed, yx::CURI("mem:///old/of%20last%20week.vmdk")));
    EXPECT_EQ(ChecksumState::Different, getChecksumState(renamed, kMainFile));
    EXPECT_EQ(ChecksumState::Different, getChecksumState(descriptor, yx::CURI("mem:///b.vmdk")));
}

TEST(DescriptorChecksum, IsThatOfTheTextWithoutItsOwnLine) {
    CVMDKDescriptor descriptor =
        parse("# a\nencoding=\"UTF-8\"\nCID=5\nRW 8 SPARSE \"full.vmdk\"\n");
    updateChecksum(descriptor, kMainFile);
    // printf 'encoding="UTF-8"\nCID\nRW 8 SPARSE ""\n' | sha256sum
    EXPECT_EQ("# a\nencoding=\"UTF-8\"\nCID=5\nRW 8 SPARSE \"full.vmdk\"\nddb.kelm.checksum = "
              "\"a4711f38c958f70aafb24dbe65d63058dd3722ca8f794b604878470491c877d4\"\n",
              textOf(descriptor));
}

TEST(DescriptorChecksum, OfADescriptorWithoutOneIsAbsent) {
    EXPECT_EQ(ChecksumState::Absent, getChecksumState(parse(kPlainText), kMainFile));
    EXPECT_EQ(ChecksumState::Absent, getChecksumState(parse(""), kMainFile));
}

/// What changes a descriptor, and what it must leave true.
class DescriptorChecksumRoads : public HostTest {
protected:
    ChecksumState stateOf(std::string const& name, char const* password = "") {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        return getChecksumState(*disk->getDisk().getDescriptor(), uriOf(name));
    }
};

TEST_F(DescriptorChecksumRoads, EveryNewDiskHasAChecksum) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        { createSafe(kind, name); }
        EXPECT_EQ(ChecksumState::Valid, stateOf(name, kind.password));
        { createSafe(kind, "child-" + name, name); }
        EXPECT_EQ(ChecksumState::Valid, stateOf("child-" + name, kind.password));
    }
}

TEST_F(DescriptorChecksumRoads, WritingKeepsItTrue) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        { createSafe(kind, name); }
        // The second opening draws another content ID, and on-demand extents get their files.
        for (__int64 const position : {__int64{0}, kSmallestDiskBytes - 100}) {
            std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadWrite, kind.password);
            writeTo(*disk, position, pattern(100, 1));
            disk->flush();
        }
        EXPECT_EQ(ChecksumState::Valid, stateOf(name, kind.password));
    }
}

TEST_F(DescriptorChecksumRoads, ExactSizesAndLinksToParentsKeepItTrue) {
    { writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(100, 1)); }
    { createSafe({}, "child.vmdk", "parent.vmdk"); }
    kelm::host::setExactSizeBytes(*openSafe("child.vmdk"), 8388000);
    EXPECT_EQ(ChecksumState::Valid, stateOf("child.vmdk"));

    files->putFile(uriOf("far away/parent.vmdk"), files->getFile(uriOf("parent.vmdk")));
    kelm::host::repointToParent(*openSafe("child.vmdk"),
                                *openSafe("far away/parent.vmdk", kReadOnly),
                                kelm::host::ParentCheck::Content);
    EXPECT_EQ(ChecksumState::Valid, stateOf("child.vmdk"));

    {
        std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk");
        kelm::host::makeIndependentOfParent(*child, {});
        kelm::host::dropParentLink(*child);
    }
    EXPECT_EQ(ChecksumState::Valid, stateOf("child.vmdk"));
}

TEST_F(DescriptorChecksumRoads, ADiskOfOthersGetsNone) {
    { create({}); }
    EXPECT_EQ(ChecksumState::Absent, stateOf("disk.vmdk"));
    {
        std::unique_ptr<SafeDisk> const disk = openSafe();
        writeTo(*disk, 0, pattern(100, 1));
        kelm::host::setExactSizeBytes(*disk, 8388000);
    }
    EXPECT_EQ(ChecksumState::Absent, stateOf("disk.vmdk"));
}

TEST_F(DescriptorChecksumRoads, AChangeOfOursDoesNotVouchForOneOfOthers) {
    { createSafe({}); }
    {
        yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
        disk->getDescriptor()->setAdapterType("ide");
        disk->storeDescriptor();
    }
    EXPECT_EQ(ChecksumState::Different, stateOf("disk.vmdk"));
    kelm::host::setExactSizeBytes(*openSafe(), 8388000);
    EXPECT_EQ(ChecksumState::Different, stateOf("disk.vmdk"));
}

TEST_F(DescriptorChecksumRoads, EveryWholeDiskRoadWarnsOfEachDiskThatDiffers) {
    for (std::string const& name : {std::string("one.vmdk"), std::string("two.vmdk")}) {
        { createSafe({}, name, name == "one.vmdk" ? "" : "one.vmdk"); }
        yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite, "", name);
        disk->getDescriptor()->setAdapterType("ide");
        disk->storeDescriptor();
    }
    LogCapture const log;
    kelm::host::beginWholeReading(*openSafe("two.vmdk", kReadOnly), nullptr);
    std::string const words = ": the descriptor differs from its checksum: it is damaged, or other "
                              "software has edited it";
    ASSERT_EQ(2U, log.entries().size());
    EXPECT_EQ("mem:///disks/two.vmdk" + words, log.entries()[0].message);
    EXPECT_EQ("mem:///disks/one.vmdk" + words, log.entries()[1].message);
}

} // namespace
} // namespace test_support
