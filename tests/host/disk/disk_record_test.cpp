#include "host/disk/disk_record.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace {

using kelm::CVMDKDescriptor;
using kelm::host::ChecksumState;
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
    EXPECT_EQ(ChecksumState::Absent, record.getChecksumState());
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

TEST(DiskRecord, TheChecksumCoversEveryLineButTwoValues) {
    CVMDKDescriptor descriptor = parse(kPlainText);
    DiskRecord record(descriptor);
    record.setState(DiskState::Unfinished);
    record.updateChecksum();
    EXPECT_EQ(ChecksumState::Valid, record.getChecksumState());
    std::string const text = textOf(descriptor);
    CVMDKDescriptor stored = parse(text);
    EXPECT_EQ(ChecksumState::Valid, DiskRecord(stored).getChecksumState());

    record.setState(DiskState::Complete);
    descriptor.setContentID(1);
    EXPECT_EQ(ChecksumState::Valid, record.getChecksumState());

    // But for the text's last line end, which ends nothing.
    for (std::size_t at = 0; at + 1 < text.size(); ++at) {
        std::string changed = text;
        changed[at] = static_cast<char>(changed[at] ^ 1);
        std::size_t const lineStart = text.rfind('\n', at) + 1;
        std::string const line = text.substr(lineStart, text.find('\n', at) - lineStart);
        bool const isLeftOut = (line.starts_with("CID=") || line.starts_with("ddb.kelm.state")) &&
                               at - lineStart > line.find('=') && text[at] != '\n';
        CVMDKDescriptor descriptorChanged = parse(changed);
        ChecksumState const state = DiskRecord(descriptorChanged).getChecksumState();
        if (isLeftOut)
            EXPECT_EQ(ChecksumState::Valid, state) << at << ": " << changed;
        else
            EXPECT_NE(ChecksumState::Valid, state) << at << ": " << changed;
    }
}

TEST(DiskRecord, TheChecksumIsThatOfTheTextWithoutItsOwnLine) {
    CVMDKDescriptor descriptor = parse("encoding=\"UTF-8\"\nCID=5\n");
    DiskRecord(descriptor).updateChecksum();
    // printf 'encoding="UTF-8"\nCID\n' | sha256sum
    EXPECT_EQ("encoding=\"UTF-8\"\nCID=5\nddb.kelm.checksum = "
              "\"b3b604dc45c39263fd6ecf550d5cc737ecf28d88d89648034c8491758f61da48\"\n",
              textOf(descriptor));
}

TEST(DiskRecord, ADiskThatIsNotOursGetsNoChecksum) {
    CVMDKDescriptor descriptor = parse(kPlainText);
    DiskRecord(descriptor).updateChecksumIfPresent();
    EXPECT_EQ(kPlainText, textOf(descriptor));
    DiskRecord(descriptor).updateChecksum();
    descriptor.setParentContentID(7);
    EXPECT_EQ(ChecksumState::Different, DiskRecord(descriptor).getChecksumState());
    DiskRecord(descriptor).updateChecksumIfPresent();
    EXPECT_EQ(ChecksumState::Valid, DiskRecord(descriptor).getChecksumState());
}

} // namespace
