#include "host/disk/disk_record.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace {

using kelm::CVMDKDescriptor;
using kelm::host::DiskRecord;
using kelm::host::DiskState;

CVMDKDescriptor parse(std::string const& text) {
    return CVMDKDescriptor(test_support::toBuffer({text.begin(), text.end()}));
}

std::string textOf(CVMDKDescriptor const& descriptor) {
    return descriptor.toString().toStdString();
}

constexpr char kPlainText[] = "# Disk DescriptorFile\n"
                              "version=1\n"
                              "encoding=\"UTF-8\"\n"
                              "CID=12345678\n"
                              "parentCID=ffffffff\n"
                              "RW 131072 SPARSE \"full.vmdk\"\n"
                              "ddb.adapterType = \"lsilogic\"\n";

TEST(DiskRecord, ADiskThatSaysNothingIsCompleteAndHasNoFacts) {
    CVMDKDescriptor descriptor = parse(kPlainText);
    DiskRecord const record(descriptor);
    EXPECT_EQ(DiskState::Complete, record.getState());
    EXPECT_EQ(std::nullopt, record.getImageBytes(1 << 20));
    EXPECT_EQ("", record.getTime());
    EXPECT_EQ("", record.getSource());
    EXPECT_EQ("", record.getHost());
    EXPECT_EQ("", record.getLabel());
}

TEST(DiskRecord, TheStateKeepsItsLength) {
    CVMDKDescriptor descriptor = parse("version=1\n");
    DiskRecord record(descriptor);
    record.setState(DiskState::Unfinished);
    EXPECT_EQ("version=1\nddb.kelm.state = \"unfinished\"\n", textOf(descriptor));
    EXPECT_EQ(DiskState::Unfinished, record.getState());
    record.setState(DiskState::Complete);
    EXPECT_EQ("version=1\nddb.kelm.state = \"complete  \"\n", textOf(descriptor));
    EXPECT_EQ(DiskState::Complete, record.getState());
}

TEST(DiskRecord, AMixtureOfBothStatesIsUnfinished) {
    for (char const* const value : {"completehed", "unfinite  ", "complete  d", "", "x"}) {
        CVMDKDescriptor descriptor = parse("ddb.kelm.state = \"" + std::string(value) + "\"\n");
        EXPECT_EQ(DiskState::Unfinished, DiskRecord(descriptor).getState()) << value;
    }
}

TEST(DiskRecord, TheImageSizeHasTwentyDigits) {
    CVMDKDescriptor descriptor = parse("version=1\n");
    DiskRecord record(descriptor);
    record.setImageBytes(67109376);
    EXPECT_EQ("version=1\nddb.kelm.imageBytes = \"00000000000067109376\"\n", textOf(descriptor));
    EXPECT_EQ(67109376, record.getImageBytes(67174400));
    EXPECT_EQ(67109376, record.getImageBytes(67109376));
}

TEST(DiskRecord, AnImageSizeThatCannotBeIsCorrupt) {
    for (char const* const value :
         {"", "-1", "12x", "00000000000000000101", "99999999999999999999", "0x10", " 5"}) {
        SCOPED_TRACE(value);
        CVMDKDescriptor descriptor =
            parse("ddb.kelm.imageBytes = \"" + std::string(value) + "\"\n");
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::CorruptData,
            "Invalid ddb.kelm.imageBytes in VMDK descriptor: " + std::string(value), {},
            [&] { DiskRecord(descriptor).getImageBytes(100); }));
    }
}

TEST(DiskRecord, TextsComeBackAsTheyWere) {
    for (std::string const& text :
         {std::string("/dev/sdb"), std::string("a \"b\" 100%\nc\td "), std::string("\xC3\xA4"),
          std::string("no UTF-8: \xFF\xC3"), std::string(" ")}) {
        CVMDKDescriptor descriptor = parse("version=1\n");
        DiskRecord record(descriptor);
        record.setSource(text);
        record.setHost(text);
        record.setLabel(text);
        CVMDKDescriptor stored = parse(textOf(descriptor));
        EXPECT_EQ(text, DiskRecord(stored).getSource());
        EXPECT_EQ(text, DiskRecord(stored).getHost());
        EXPECT_EQ(text, DiskRecord(stored).getLabel());
    }
}

TEST(DiskRecord, TextsCannotBreakOutOfTheirLine) {
    CVMDKDescriptor descriptor = parse("");
    DiskRecord(descriptor).setLabel("x\"\nCID=1");
    EXPECT_EQ("ddb.kelm.label = \"x%22%0aCID=1\"\n", textOf(descriptor));
}

TEST(DiskRecord, AnEscapeOfSomebodyElseStays) {
    CVMDKDescriptor descriptor = parse("ddb.kelm.label = \"50% of %4\"\n");
    EXPECT_EQ("50% of %4", DiskRecord(descriptor).getLabel());
}

TEST(DiskRecord, ATextThatIsTooLongIsRefused) {
    CVMDKDescriptor descriptor = parse("version=1\n");
    DiskRecord record(descriptor);
    record.setLabel(std::string(DiskRecord::kMaxTextBytes, 'x'));
    EXPECT_THROW(record.setLabel(std::string(DiskRecord::kMaxTextBytes + 1, 'x')),
                 yx::CInvalidArgError);
    EXPECT_THROW(record.setLabel(std::string(DiskRecord::kMaxTextBytes / 3 + 1, '"')),
                 yx::CInvalidArgError);
    EXPECT_EQ(std::string(DiskRecord::kMaxTextBytes, 'x'), record.getLabel());
}

} // namespace
