#include "kelm/format/descriptor.h"

#include <random>
#include <stdexcept>

#include <gtest/gtest.h>
#include <wx/tokenzr.h>

#include "tests/support/byte_builder.h"
#include "tests/support/expect_error.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_stream.h"

namespace {

using kelm::CVMDKDescriptor;
using kelm::CVMDKDescriptorEntry;
using kelm::CVMDKExtentInfo;
using test_support::ByteBuilder;
using test_support::Bytes;
using test_support::LogCapture;
using test_support::ScriptedStream;
using test_support::throwsError;
using test_support::toBuffer;
using test_support::toBytes;
using test_support::zeroBuffer;

CVMDKDescriptor parse(std::string_view text) {
    return CVMDKDescriptor(toBuffer(test_support::fromText(text)));
}

std::string text(CVMDKDescriptor const& descriptor) {
    return descriptor.toString().toStdString();
}

/// The text after parsing and writing it again.
std::string rewritten(std::string_view source) {
    return text(parse(source));
}

yx::TArray<yx::P<CVMDKExtentInfo>> extentsOf(CVMDKDescriptor const& descriptor) {
    yx::TArray<yx::P<CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    return extents;
}

/// Shows where the next header line would go.
std::string withHeaderLine(std::string_view source) {
    CVMDKDescriptor descriptor = parse(source);
    descriptor.addGenericLine("<here>", true);
    return text(descriptor);
}

constexpr std::string_view kDisk = "# Disk DescriptorFile\n"
                                   "version=1\n"
                                   "encoding=\"UTF-8\"\n"
                                   "CID=fffffffe\n"
                                   "parentCID=ffffffff\n"
                                   "createType=\"monolithicSparse\"\n"
                                   "\n"
                                   "# Extent description\n"
                                   "RW 4192256 SPARSE \"disk-s001.vmdk\"\n"
                                   "RW 2097152 SPARSE \"disk-s002.vmdk\"\n"
                                   "\n"
                                   "# The Disk Data Base \n"
                                   "#DDB\n"
                                   "\n"
                                   "ddb.adapterType = \"ide\"\n"
                                   "ddb.geometry.cylinders = \"6241\"\n"
                                   "ddb.geometry.heads = \"16\"\n"
                                   "ddb.geometry.sectors = \"63\"\n"
                                   "ddb.unknownKey = \"kept\"\n";

TEST(Descriptor, TextInNormalFormComesOutAsItWentIn) {
    EXPECT_EQ(rewritten(kDisk), kDisk);
}

TEST(Descriptor, AnswersWhatTheTextSays) {
    CVMDKDescriptor const disk = parse(kDisk);
    EXPECT_EQ(disk.getVersion(), 1);
    EXPECT_EQ(disk.getContentID(), 0xfffffffeu);
    EXPECT_EQ(disk.getParentContentID(), 0xffffffffu);
    EXPECT_EQ(disk.getCreateType(), "monolithicSparse");
    EXPECT_EQ(disk.getAdapterType(), "ide");
    EXPECT_EQ(disk.getGeometryCylinders(), 6241);
    EXPECT_EQ(disk.getGeometryHeads(), 16);
    EXPECT_EQ(disk.getGeometrySectors(), 63);
    EXPECT_TRUE(disk.hasValue("ddb.unknownKey"));
    EXPECT_FALSE(disk.hasValue("ddb.noSuchKey"));
    auto const extents = extentsOf(disk);
    ASSERT_EQ(extents.getSize(), 2);
    EXPECT_EQ(extents[0]->getAccess(), "RW");
    EXPECT_EQ(extents[0]->getSizeSectors(), 4192256);
    EXPECT_EQ(extents[0]->getType(), "SPARSE");
    EXPECT_EQ(extents[0]->getFilename(), "disk-s001.vmdk");
    EXPECT_EQ(extents[0]->getOffset(), -1);
    EXPECT_EQ(extents[1]->getFilename(), "disk-s002.vmdk");
}

TEST(Descriptor, EmptyTextHasNoLines) {
    for (CVMDKDescriptor const& descriptor :
         {CVMDKDescriptor(), parse(""), parse(std::string_view("\0\0a=1\n", 6)),
          CVMDKDescriptor(yx::TBuffer<unsigned char>())})
        EXPECT_EQ(text(descriptor), "");
    EXPECT_EQ(withHeaderLine(""), "<here>\n");
}

TEST(Descriptor, OneEmptyLineBehindTheLastLineEndIsDropped) {
    struct Case {
        char const* source;
        char const* lines;
    };
    for (auto const& [source, lines] : {
             Case{"a=1", "a=1\n"},
             Case{"a=1\n", "a=1\n"},
             Case{"a=1\n\n", "a=1\n\n"},
             Case{"a=1\n\n\n", "a=1\n\n\n"},
             Case{"\n", "\n"},
             Case{"\n\n", "\n\n"},
             Case{"a=1\n ", "a=1\n \n"},
             Case{"\na=1", "\na=1\n"},
         })
        EXPECT_EQ(rewritten(source), lines) << source;
}

TEST(Descriptor, TextEndsAtTheFirstZeroByte) {
    EXPECT_EQ(rewritten(std::string_view("a=1\nb=2\0\n\xFF\xFE=3\n", 15)), "a=1\nb=2\n");
}

TEST(Descriptor, KeyAndValueLinesAreBroughtIntoNormalForm) {
    struct Case {
        char const* line;
        char const* written;
    };
    for (auto const& [line, written] : {
             Case{"  version = 1 ", "version=1"},
             Case{"a=b=c", "a=b=c"},
             Case{"a =\t\"b\" \t", "a=\"b\""},
             Case{"a=", "a="},
             Case{"a=\"\"", "a=\"\""},
             Case{"a=\"", "a=\"\""},
             Case{"a=\"x", "a=\"x"},
             Case{"a=x\"", "a=x\""},
             Case{"a=\"x\"y\"", "a=\"x\"y\""},
             Case{"a=\" x \"", "a=\" x \""},
             Case{"a=b c", "a=b c"},
             Case{"a=1\r", "a=1"},
             Case{"a=\"1\"\r", "a=\"1\""},
             Case{"\ta\t=\v1\f", "a=1"},
             Case{"a\tb=1", "a\tb=1"},
             Case{"ddb.x=1", "ddb.x = 1"},
             Case{"ddb.x=\"1\"", "ddb.x = \"1\""},
             Case{"ddb. = 1", "ddb. = 1"},
             Case{"DDB.x = \"1\"", "DDB.x=\"1\""},
             Case{"ddbx = 1", "ddbx=1"},
         })
        EXPECT_EQ(rewritten(line), std::string(written) + "\n") << line;
}

TEST(Descriptor, AllOtherLinesAreKeptByteForByte) {
    for (char const* const line : {
             "# comment",
             "#",
             "#a=1",
             "#\r",
             "# trailing \t",
             "my key=1",
             " my key = \"1\" ",
             "=1",
             " = 1",
             "no sign at all",
             " \t ",
             "\r",
             "word\r",
             "RW 1000 ZERO",
             "RW 1000",
             "my key = 1\r",
             " # not a comment = 1",
         })
        EXPECT_EQ(rewritten(line), std::string(line) + "\n") << line;
}

TEST(Descriptor, CommentsAreNoValues) {
    EXPECT_FALSE(parse("#a=1\n").hasValue("#a"));
    EXPECT_TRUE(parse(" #a=1\n").hasValue("#a")) << "a comment starts its line";
}

TEST(Descriptor, CarriageReturnsStayOnlyInVerbatimLines) {
    EXPECT_EQ(rewritten("# c\r\nversion=1\r\nRW 10 SPARSE \"a\"\r\n\r\nRW 10 FLAT \"a\" 5\r\n"),
              "# c\r\nversion=1\nRW 10 SPARSE \"a\"\n\r\nRW 10 FLAT \"a\" 5\n");
}

TEST(Descriptor, ExtentLinesKeepTheirWords) {
    struct Case {
        char const* line;
        char const* access;
        __int64 sizeSectors;
        char const* type;
        char const* filename;
        __int64 offset;
        char const* written;
    };
    for (Case const& test : {
             Case{"RW 4192256 SPARSE \"disk-s001.vmdk\"", "RW", 4192256, "SPARSE", "disk-s001.vmdk",
                  -1, "RW 4192256 SPARSE \"disk-s001.vmdk\""},
             Case{"RW 10 FLAT \"a b.vmdk\" 128", "RW", 10, "FLAT", "a b.vmdk", 128,
                  "RW 10 FLAT \"a b.vmdk\" 128"},
             Case{"RW   10   FLAT   \"a\"   0  ", "RW", 10, "FLAT", "a", 0, "RW 10 FLAT \"a\" 0"},
             Case{"RW 10 SPARSE \"x=y.vmdk\"", "RW", 10, "SPARSE", "x=y.vmdk", -1,
                  "RW 10 SPARSE \"x=y.vmdk\""},
             Case{"RW 10 SPARSE \"\"", "RW", 10, "SPARSE", "", -1, "RW 10 SPARSE \"\""},
             Case{"any -5 word \"f\"-7", "any", -5, "word", "f", -7, "any -5 word \"f\" -7"},
             Case{"RW \t10 \tSPARSE \t\"a\"", "RW", 10, "SPARSE", "a", -1, "RW 10 SPARSE \"a\""},
             Case{"RW +10 SPARSE \"a\" -1", "RW", 10, "SPARSE", "a", -1, "RW 10 SPARSE \"a\""},
             Case{" 10 SPARSE \"a\"", "", 10, "SPARSE", "a", -1, " 10 SPARSE \"a\""},
         }) {
        auto const extent = CVMDKExtentInfo::tryParseDescriptorLine(test.line);
        ASSERT_TRUE(extent) << test.line;
        EXPECT_EQ(extent->getAccess(), test.access) << test.line;
        EXPECT_EQ(extent->getSizeSectors(), test.sizeSectors) << test.line;
        EXPECT_EQ(extent->getType(), test.type) << test.line;
        EXPECT_EQ(extent->getFilename(), test.filename) << test.line;
        EXPECT_EQ(extent->getOffset(), test.offset) << test.line;
        EXPECT_EQ(extent->toString(), test.written) << test.line;
        EXPECT_EQ(extentsOf(parse(test.line)).getSize(), 1) << test.line;
        EXPECT_EQ(rewritten(test.line), std::string(test.written) + "\n");
    }
}

TEST(Descriptor, LinesWithBadPartsAreNoExtentLines) {
    LogCapture log;
    for (char const* const line : {
             "",
             " ",
             "RW",
             "what ever",
             "RW 10",
             "RW 10 ZERO",
             "RW 10 ZERO ",
             "RW 10 SPARSE a.vmdk",
             "RW 10 SPARSE \"a.vmdk",
             "RW ten SPARSE \"a\"",
             "RW 10x SPARSE \"a\"",
             "RW 0x10 SPARSE \"a\"",
             "RW 9223372036854775808 SPARSE \"a\"",
             "RW - SPARSE \"a\"",
             "RW 1-0 SPARSE \"a\"",
             "RW 10 FLAT \"a\" x",
             "RW 10 FLAT \"a\" 1 2",
             "RW 10 FLAT \"a\" 99999999999999999999",
             "RW\t10\tSPARSE\t\"a\"",
             "RW\t10 SPARSE \"a\"",
             "RW 10\tSPARSE \"a\"",
             "RW 10 SPARSE\t\"a\"",
         }) {
        EXPECT_FALSE(CVMDKExtentInfo::tryParseDescriptorLine(line)) << line;
        EXPECT_EQ(extentsOf(parse(line)).getSize(), 0) << line;
        EXPECT_EQ(rewritten(std::string(line) + "\n"), std::string(line) + "\n");
    }
    EXPECT_EQ(log.entries().size(), 0u);
}

TEST(Descriptor, ExtentSizesReachTheLimitsOf64Bits) {
    auto const extent = CVMDKExtentInfo::tryParseDescriptorLine("RW 9223372036854775807 FLAT \"a\" "
                                                                "-9223372036854775808");
    ASSERT_TRUE(extent);
    EXPECT_EQ(extent->getSizeSectors(), 0x7FFFFFFFFFFFFFFF);
    EXPECT_EQ(extent->toString(), "RW 9223372036854775807 FLAT \"a\" -9223372036854775808");
}

TEST(Descriptor, KeysAreComparedWithoutRegardToCase) {
    CVMDKDescriptor const descriptor = parse("Version=1\nCREATETYPE=\"x\"\n");
    EXPECT_EQ(descriptor.getVersion(), 1);
    EXPECT_EQ(descriptor.getCreateType(), "x");
    EXPECT_TRUE(descriptor.hasValue("createtype"));
    EXPECT_FALSE(descriptor.hasValue("createtyp"));
    EXPECT_FALSE(descriptor.hasValue("createtypes"));
    EXPECT_FALSE(descriptor.hasValue(""));
}

TEST(Descriptor, TheFirstOfTwoSpellingsOfAKeyCounts) {
    CVMDKDescriptor descriptor = parse("cid=1\nCID=2\n");
    EXPECT_EQ(descriptor.getContentID(), 1u);
    descriptor.setContentID(0xabc);
    EXPECT_EQ(text(descriptor), "cid=abc\nCID=2\n");
}

TEST(Descriptor, ChangedValueKeepsItsPlaceItsKeyAndItsQuotes) {
    CVMDKDescriptor descriptor = parse("# top\nKey=old\nother=\"o\"\n");
    descriptor.setValue("KEY", "new", true, false);
    descriptor.setValue("OTHER", "p", false, false);
    EXPECT_EQ(text(descriptor), "# top\nKey=new\nother=\"p\"\n");
}

TEST(Descriptor, NewHeaderKeysGoBehindTheLastOneBeforeTheExtents) {
    struct Case {
        char const* source;
        char const* result;
    };
    for (auto const& [source, result] : {
             Case{"# c\na=1\n# d\nRW 1 SPARSE \"f\"\nb=2\n",
                  "# c\na=1\n<here>\n# d\nRW 1 SPARSE \"f\"\nb=2\n"},
             Case{"# c\n\nRW 1 SPARSE \"f\"\nb=2\n", "<here>\n# c\n\nRW 1 SPARSE \"f\"\nb=2\n"},
             Case{"# c\nxyz\n", "<here>\n# c\nxyz\n"},
             Case{"a=1\nb=2\n\n", "a=1\nb=2\n<here>\n\n"},
             Case{"a=1\n# c\nb=2", "a=1\n# c\nb=2\n<here>\n"},
             Case{"a=1\nRW 10 ZERO\nb=2\n", "a=1\nRW 10 ZERO\nb=2\n<here>\n"},
         })
        EXPECT_EQ(withHeaderLine(source), result) << source;
}

TEST(Descriptor, NewLinesFollowEachOther) {
    CVMDKDescriptor descriptor = parse("a=1\n# c\nRW 1 SPARSE \"f\"\n");
    descriptor.setValue("h1", "x", true, true);
    descriptor.setValue("e1", "y", false, false);
    descriptor.setValue("ddb.e2", "z", true, false);
    descriptor.addGenericLine("# h2", true);
    descriptor.addGenericLine("# e3", false);
    descriptor.addGenericLine("# e3", false);
    descriptor.setValue("h3", "w", false, true);
    EXPECT_EQ(text(descriptor), "a=1\nh1=\"x\"\n# h2\nh3=w\n# c\nRW 1 SPARSE \"f\"\ne1=y\n"
                                "ddb.e2 = \"z\"\n# e3\n# e3\n");
}

TEST(Descriptor, RemovedKeyTakesAllItsLinesAndNoOtherAlong) {
    CVMDKDescriptor descriptor =
        parse("# a=1\nA=2\nb=3\nRW 1 SPARSE \"a=\"\na = 4\nab=5\nddb.a = 6\n");
    EXPECT_TRUE(descriptor.removeValue("a"));
    EXPECT_EQ(text(descriptor), "# a=1\nb=3\nRW 1 SPARSE \"a=\"\nab=5\nddb.a = 6\n");
    EXPECT_FALSE(descriptor.hasValue("a"));
    EXPECT_TRUE(descriptor.removeValue("DDB.A"));
    EXPECT_EQ(text(descriptor), "# a=1\nb=3\nRW 1 SPARSE \"a=\"\nab=5\n");
}

TEST(Descriptor, RemovingAnAbsentKeyChangesNothing) {
    CVMDKDescriptor descriptor = parse("a=1\n# b=2\n");
    EXPECT_FALSE(descriptor.removeValue("b"));
    EXPECT_FALSE(descriptor.removeValue(""));
    EXPECT_EQ(text(descriptor), "a=1\n# b=2\n");
    CVMDKDescriptor empty;
    EXPECT_FALSE(empty.removeValue("a"));
    EXPECT_EQ(text(empty), "");
}

TEST(Descriptor, NewHeaderKeysFindTheirPlaceAfterARemoval) {
    struct Case {
        std::string_view before;
        std::string_view after;
    };
    for (Case const& each : {
             Case{"gone=1\nb=2\nRW 1 SPARSE \"x\"\n", "b=2\n<here>\nRW 1 SPARSE \"x\"\n"},
             Case{"b=2\ngone=1\nRW 1 SPARSE \"x\"\n", "b=2\n<here>\nRW 1 SPARSE \"x\"\n"},
             Case{"b=2\n# c\ngone=1\nRW 1 SPARSE \"x\"\n", "b=2\n<here>\n# c\nRW 1 SPARSE \"x\"\n"},
             Case{"b=2\nRW 1 SPARSE \"x\"\ngone=1\n", "b=2\n<here>\nRW 1 SPARSE \"x\"\n"},
             Case{"# c\ngone=1\n", "<here>\n# c\n"},
         }) {
        SCOPED_TRACE(each.before);
        CVMDKDescriptor descriptor = parse(each.before);
        EXPECT_TRUE(descriptor.removeValue("gone"));
        descriptor.addGenericLine("<here>", true);
        EXPECT_EQ(text(descriptor), each.after);
    }
}

TEST(Descriptor, CopyKeepsWhatItsSourceRemoves) {
    CVMDKDescriptor descriptor = parse("a=1\nb=2\n");
    CVMDKDescriptor const copy(descriptor);
    EXPECT_TRUE(descriptor.removeValue("a"));
    EXPECT_EQ(text(copy), "a=1\nb=2\n");
}

TEST(Descriptor, NewExtentLineGoesToTheEndAndLeavesTheHeaderAlone) {
    CVMDKDescriptor descriptor = parse("a=1\nRW 1 SPARSE \"f\"\nddb.x = \"1\"\n");
    auto const extent = yx::makeObject<CVMDKExtentInfo>("RW", 7, "FLAT", "g", 3);
    descriptor.addExtentEntry(extent.get());
    descriptor.addGenericLine("<here>", true);
    EXPECT_EQ(text(descriptor),
              "a=1\n<here>\nRW 1 SPARSE \"f\"\nddb.x = \"1\"\nRW 7 FLAT \"g\" 3\n");
    EXPECT_EQ(extentsOf(descriptor)[1], extent) << "the object is shared";
}

TEST(Descriptor, MissingExtentEntryIsRefused) {
    CVMDKDescriptor descriptor;
    EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKDescriptor::addExtentEntry",
                                               "No extent entry given.",
                                               [&] { descriptor.addExtentEntry(nullptr); }));
}

TEST(Descriptor, ExtentsAreAppendedToTheTarget) {
    yx::TArray<yx::P<CVMDKExtentInfo>> target;
    target.add(yx::makeObject<CVMDKExtentInfo>("RW", 1, "FLAT", "first", 0));
    parse(kDisk).getExtentEntries(target);
    ASSERT_EQ(target.getSize(), 3);
    EXPECT_EQ(target[0]->getFilename(), "first");
    EXPECT_EQ(target[2]->getFilename(), "disk-s002.vmdk");
}

/// A line that must not be taken for what it is.
class GuardedExtent : public CVMDKExtentInfo {
public:
    using CVMDKExtentInfo::CVMDKExtentInfo;
    bool checkCastAllowed(std::type_info const&) const override { return false; }
};

TEST(Descriptor, LinesThatRefuseTheCastAreNoExtents) {
    CVMDKDescriptor descriptor;
    descriptor.addExtentEntry(yx::makeObject<GuardedExtent>("RW", 7, "FLAT", "g", 3).get());
    EXPECT_EQ(extentsOf(descriptor).getSize(), 0);
    EXPECT_EQ(text(descriptor), "RW 7 FLAT \"g\" 3\n");
}

TEST(Descriptor, CopiesShareNoLine) {
    CVMDKDescriptor original = parse(kDisk);
    CVMDKDescriptor copy(original);
    CVMDKDescriptor assigned = parse("x=1\n");
    assigned = original;
    CVMDKDescriptor& alias = assigned;
    assigned = alias;

    original.setContentID(0x11);
    EXPECT_EQ(text(copy), kDisk);
    EXPECT_EQ(text(assigned), kDisk);
    EXPECT_NE(extentsOf(copy)[0], extentsOf(original)[0]);
    EXPECT_NE(extentsOf(assigned)[0], extentsOf(original)[0]);

    // The place for header lines is copied too.
    original.setValue("new", "1", false, true);
    copy.setContentID(0x11);
    copy.setValue("new", "1", false, true);
    EXPECT_EQ(text(copy), text(original));
}

TEST(DescriptorEntries, CloneToIndependentLines) {
    CVMDKDescriptor::CNameValueEntry entry("ddb.k", "v", true);
    auto const clone = yx::cast<CVMDKDescriptor::CNameValueEntry>(entry.cloneDescriptorEntry());
    ASSERT_TRUE(clone);
    entry.setValue("w");
    EXPECT_EQ(entry.toString(), "ddb.k = \"w\"");
    EXPECT_EQ(clone->toString(), "ddb.k = \"v\"");
    EXPECT_EQ(clone->getName(), "ddb.k");
    EXPECT_EQ(clone->getValue(), "v");
    EXPECT_TRUE(clone->getQuoted());

    CVMDKDescriptor::CGenericEntry const line(" any = line ");
    EXPECT_EQ(line.cloneDescriptorEntry()->toString(), " any = line ");
    CVMDKExtentInfo const extent("RW", 7, "FLAT", "g", 3);
    EXPECT_EQ(extent.cloneDescriptorEntry()->toString(), "RW 7 FLAT \"g\" 3");
}

// Encodings

std::string const kUmlautUTF8 = "\xC3\xBC";
std::string const kUmlautLatin1 = "\xFC";

TEST(DescriptorEncoding, NamesOfUTF8AndNoNameAtAllMeanUTF8) {
    LogCapture log;
    for (std::string const name :
         {"", "encoding=\"UTF-8\"\n", "encoding=\"utf_8\"\n", "encoding=Utf8\n",
          "ENCODING=\"_U-T_F-8-\"\n", "encoding=\"\"\n", "encoding=-\n", "#encoding=\"latin1\"\n"})
        EXPECT_EQ(parse(name + "k=" + kUmlautUTF8).getValue("k").toStdString(), kUmlautUTF8)
            << name;
    EXPECT_EQ(log.entries().size(), 0u);
}

TEST(DescriptorEncoding, NamesOfLatin1MeanLatin1) {
    LogCapture log;
    for (std::string const name :
         {"encoding=\"latin1\"\n", "encoding=\"LATIN-1\"\n", "Encoding=ISO-8859-1\n",
          "encoding=\"iso_8859_1\"\n", "encoding=\"iso88591\"\n"})
        EXPECT_EQ(parse(name + "k=" + kUmlautLatin1).getValue("k").toStdString(), kUmlautUTF8)
            << name;
    EXPECT_EQ(log.entries().size(), 0u);
}

TEST(DescriptorEncoding, TheNameIsFoundBehindBytesOfAnyEncoding) {
    EXPECT_EQ(parse("k=" + kUmlautLatin1 + "\nencoding=\"latin1\"\nencoding=\"UTF-8\"\n")
                  .getValue("k")
                  .toStdString(),
              kUmlautUTF8);
}

TEST(DescriptorEncoding, AnUnknownNameIsLoggedAndReadAsLatin1) {
    LogCapture log;
    CVMDKDescriptor const descriptor =
        parse("encoding=\"Windows-1252\"\nk=" + kUmlautLatin1 + "\n");
    EXPECT_EQ(descriptor.getValue("k").toStdString(), kUmlautUTF8);
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].level, yx::LogLevel::Warning);
    EXPECT_EQ(log.entries()[0].message,
              "Unknown VMDK descriptor encoding 'Windows-1252'. Using Latin-1 instead.");
    EXPECT_EQ(log.entries()[0].detail, "");
    EXPECT_EQ(log.entries()[0].error, "");
}

TEST(DescriptorEncoding, AnUnknownNameIsLoggedForASCIITooAndChangesNothing) {
    LogCapture log;
    EXPECT_EQ(rewritten("encoding=KOI8-R\nRW 7 SPARSE \"a b\"\nk=v\n"),
              "encoding=KOI8-R\nRW 7 SPARSE \"a b\"\nk=v\n");
    ASSERT_EQ(log.entries().size(), 1u);
    EXPECT_EQ(log.entries()[0].message,
              "Unknown VMDK descriptor encoding 'KOI8-R'. Using Latin-1 instead.");
}

/// What lines become must not depend on whether another line has a character beyond ASCII.
TEST(DescriptorEncoding, LinesOfASCIIAreTheSameBesideOthers) {
    constexpr std::string_view kOther = "# \xC3\xA4\n";
    for (std::string_view const line :
         {"RW 4192256 SPARSE \"disk-s001.vmdk\"", "RW +7 FLAT \"a=b\" -128 \r", "RW 7 SPARSE \"a",
          "RW 7x SPARSE \"a\"", "RW 9223372036854775808 SPARSE \"a\"", "RW  7  ZERO", " k = \"v\" ",
          "k=\"", "=v", "a b=c", "", "\t", "#k=v", "RW - SPARSE \"a\"", "RW 7 SPARSE \"a\" x"}) {
        std::string const source = std::string(line) + "\n";
        CVMDKDescriptor const plain = parse(source);
        CVMDKDescriptor const beside = parse(std::string(kOther) + source);
        EXPECT_EQ(std::string(kOther) + text(plain), text(beside)) << line;
        ASSERT_EQ(extentsOf(plain).getSize(), extentsOf(beside).getSize()) << line;
        for (int i = 0; i < extentsOf(plain).getSize(); ++i) {
            EXPECT_EQ(extentsOf(plain)[i]->getSizeSectors(),
                      extentsOf(beside)[i]->getSizeSectors());
            EXPECT_EQ(extentsOf(plain)[i]->getFilename(), extentsOf(beside)[i]->getFilename());
        }
        EXPECT_EQ(plain.hasValue("K"), beside.hasValue("K")) << line;
    }
}

TEST(DescriptorEncoding, ExceptionWhileDecodingIsLoggedAndReadAsLatin1) {
    // The first warning makes the decoding of this text fail.
    std::vector<std::string> warnings;
    auto const previous = yx::setLogHandler([&](yx::LogEntry const& entry) {
        warnings.push_back(entry.message.toStdString());
        if (warnings.size() == 1)
            throw std::runtime_error("no room for the log");
        EXPECT_EQ(entry.level, yx::LogLevel::Warning);
        EXPECT_EQ(entry.detail, "");
        ASSERT_NE(entry.error, nullptr);
        EXPECT_STREQ(entry.error->what(), "no room for the log");
    });
    CVMDKDescriptor const descriptor = parse("encoding=KOI8-R\nk=" + kUmlautLatin1 + "\n");
    yx::setLogHandler(previous);
    EXPECT_EQ(descriptor.getValue("k").toStdString(), kUmlautUTF8);
    EXPECT_EQ(warnings, (std::vector<std::string>{
                            "Unknown VMDK descriptor encoding 'KOI8-R'. Using Latin-1 instead.",
                            "Ignoring VMDK descriptor decoding error (encoding: 'KOI8-R'. Using "
                            "Latin-1 encoding instead."}));
}

TEST(DescriptorEncoding, BytesThatAreNoUTF8MakeADescriptorWithoutLines) {
    LogCapture log;
    for (std::string const bytes : {"\xFC", "\xC3", "\xC0\x80", "\x80", "\xF4\x90\x80\x80",
                                    "\xF8\x88\x80\x80\x80", "\xE2\x82"}) {
        CVMDKDescriptor const descriptor = parse("version=1\n# " + bytes + "\nk=v\n");
        EXPECT_EQ(text(descriptor), "");
        EXPECT_TRUE(throwsError("VMDK descriptor value 'version' not found.", {},
                                [&] { descriptor.getVersion(); }));
    }
    EXPECT_EQ(log.entries().size(), 0u);
}

TEST(DescriptorEncoding, CharactersOfAllLengthsSurvive) {
    std::string const source = "# \x7F \xC2\x80 \xDF\xBF \xE2\x82\xAC \xEF\xBF\xBF "
                               "\xF0\x9F\x98\x80 \xF4\x8F\xBF\xBF\n";
    EXPECT_EQ(rewritten(source), source);
}

// Typed values

TEST(DescriptorValues, AreWrittenByTheirSetters) {
    CVMDKDescriptor descriptor;
    descriptor.setVersion(1);
    descriptor.setEncodingUTF8();
    descriptor.setContentID(0x0000beef);
    descriptor.setParentContentID(0xFFFFFFFF);
    descriptor.setParentFileNameHint("C:\\a \"b\".vmdk");
    descriptor.setCreateType("twoGbMaxExtentSparse");
    descriptor.setYxCreateExtentFilesOnDemand(true);
    descriptor.setAdapterType("lsilogic");
    descriptor.setGeometrySectors(63);
    descriptor.setGeometryHeads(255);
    descriptor.setGeometryCylinders(9223372036854775807);
    descriptor.setYxEncryptionAlgorithm("aes256cbc");
    descriptor.setYxEncryptionKeyHashAlgorithm("sha256");
    descriptor.setYxEncryptionKeyDerivationAlgorithm("pbkdf2");
    descriptor.setYxEncryptionIV(toBuffer(Bytes{0x01, 0xAB}));
    descriptor.setYxEncryptedEncryptionKey(toBuffer(Bytes{0x02, 0xCD}));
    descriptor.setYxEncryptionKeyHash(toBuffer(Bytes{0x03, 0xEF}));
    descriptor.setYxEncryptionKeyDerivationSalt(toBuffer(Bytes{0x04, 0xFF}));
    EXPECT_EQ(text(descriptor), "version=1\n"
                                "encoding=\"UTF-8\"\n"
                                "CID=beef\n"
                                "parentCID=ffffffff\n"
                                "parentFileNameHint=\"C:\\a \"b\".vmdk\"\n"
                                "createType=\"twoGbMaxExtentSparse\"\n"
                                "yxCreateExtentFilesOnDemand=\"true\"\n"
                                "yxEncAlg=aes256cbc\n"
                                "yxEncKeyHashAlg=sha256\n"
                                "yxEncKeyDerivAlg=pbkdf2\n"
                                "yxEncIV=01ab\n"
                                "yxEncEncKey=02cd\n"
                                "yxEncKeyHash=03ef\n"
                                "yxEncKeyDerivSalt=04ff\n"
                                "ddb.adapterType = \"lsilogic\"\n"
                                "ddb.geometry.sectors = \"63\"\n"
                                "ddb.geometry.heads = \"255\"\n"
                                "ddb.geometry.cylinders = \"9223372036854775807\"\n");

    CVMDKDescriptor const again = parse(text(descriptor));
    EXPECT_EQ(again.getVersion(), 1);
    EXPECT_EQ(again.getContentID(), 0xbeefu);
    EXPECT_EQ(again.getParentContentID(), 0xFFFFFFFFu);
    EXPECT_EQ(again.getParentFileNameHint(), "C:\\a \"b\".vmdk");
    EXPECT_EQ(again.getCreateType(), "twoGbMaxExtentSparse");
    EXPECT_TRUE(again.getYxCreateExtentFilesOnDemand());
    EXPECT_EQ(again.getAdapterType(), "lsilogic");
    EXPECT_EQ(again.getGeometrySectors(), 63);
    EXPECT_EQ(again.getGeometryHeads(), 255);
    EXPECT_EQ(again.getGeometryCylinders(), 9223372036854775807);
    EXPECT_EQ(again.getYxEncryptionAlgorithm(), "aes256cbc");
    EXPECT_EQ(again.getYxEncryptionKeyHashAlgorithm(), "sha256");
    EXPECT_EQ(again.getYxEncryptionKeyDerivationAlgorithm(), "pbkdf2");
    EXPECT_EQ(toBytes(again.getYxEncryptionIV()), (Bytes{0x01, 0xAB}));
    EXPECT_EQ(toBytes(again.getYxEncryptedEncryptionKey()), (Bytes{0x02, 0xCD}));
    EXPECT_EQ(toBytes(again.getYxEncryptionKeyHash()), (Bytes{0x03, 0xEF}));
    EXPECT_EQ(toBytes(again.getYxEncryptionKeyDerivationSalt()), (Bytes{0x04, 0xFF}));

    descriptor.setYxCreateExtentFilesOnDemand(false);
    descriptor.setYxEncryptionIV(yx::TBuffer<unsigned char>());
    EXPECT_FALSE(descriptor.getYxCreateExtentFilesOnDemand());
    EXPECT_EQ(descriptor.getValue("yxcreateextentfilesondemand"), "false");
    EXPECT_EQ(descriptor.getYxEncryptionIV().getUsed(), 0);
}

TEST(DescriptorValues, ParentFileNameHintCanBeRemoved) {
    CVMDKDescriptor descriptor = parse("PARENTFILENAMEHINT=\"p.vmdk\"\nCID=1\n");
    descriptor.removeParentFileNameHint();
    EXPECT_EQ(text(descriptor), "CID=1\n");
    descriptor.removeParentFileNameHint();
    EXPECT_EQ(text(descriptor), "CID=1\n");
}

TEST(DescriptorValues, AnyEncryptionAlgorithmMeansEncrypted) {
    EXPECT_FALSE(CVMDKDescriptor().isEncrypted());
    EXPECT_FALSE(parse("yxEncAlg=\n").isEncrypted());
    EXPECT_FALSE(parse("yxEncAlg=\"\"\n").isEncrypted());
    EXPECT_TRUE(parse("yxEncAlg=aes256cbc\n").isEncrypted());
    EXPECT_TRUE(parse("YXENCALG=\"unknown\"\n").isEncrypted());
}

TEST(DescriptorValues, AbsentOnesThatHaveADefaultYieldIt) {
    CVMDKDescriptor const descriptor;
    EXPECT_EQ(descriptor.getParentContentID(), 0xFFFFFFFFu);
    EXPECT_FALSE(descriptor.getYxCreateExtentFilesOnDemand());
    EXPECT_EQ(descriptor.getYxEncryptionAlgorithm(), "");
    yx::String value = "before";
    EXPECT_FALSE(descriptor.tryGetValue("any", value));
    EXPECT_EQ(value, "");
    value = "before";
    EXPECT_FALSE(descriptor.tryGetParentFileNameHint(value));
    EXPECT_EQ(value, "");
}

TEST(DescriptorValues, PresentOnesAreFoundByTheTryGetters) {
    CVMDKDescriptor const descriptor = parse("parentFileNameHint=\"p.vmdk\"\nk=\n");
    yx::String value = "before";
    EXPECT_TRUE(descriptor.tryGetParentFileNameHint(value));
    EXPECT_EQ(value, "p.vmdk");
    EXPECT_TRUE(descriptor.tryGetValue("k", value));
    EXPECT_EQ(value, "");
}

TEST(DescriptorValues, OtherAbsentOnesAreReportedByTheirKeys) {
    CVMDKDescriptor const descriptor;
    struct Case {
        char const* key;
        std::function<void()> get;
    };
    for (auto const& [key, get] : std::vector<Case>{
             {"some Key", [&] { descriptor.getValue("some Key"); }},
             {"version", [&] { descriptor.getVersion(); }},
             {"CID", [&] { descriptor.getContentID(); }},
             {"parentFileNameHint", [&] { descriptor.getParentFileNameHint(); }},
             {"createType", [&] { descriptor.getCreateType(); }},
             {"ddb.adapterType", [&] { descriptor.getAdapterType(); }},
             {"ddb.geometry.sectors", [&] { descriptor.getGeometrySectors(); }},
             {"ddb.geometry.heads", [&] { descriptor.getGeometryHeads(); }},
             {"ddb.geometry.cylinders", [&] { descriptor.getGeometryCylinders(); }},
             {"yxEncKeyHashAlg", [&] { descriptor.getYxEncryptionKeyHashAlgorithm(); }},
             {"yxEncKeyDerivAlg", [&] { descriptor.getYxEncryptionKeyDerivationAlgorithm(); }},
             {"yxEncIV", [&] { descriptor.getYxEncryptionIV(); }},
             {"yxEncEncKey", [&] { descriptor.getYxEncryptedEncryptionKey(); }},
             {"yxEncKeyHash", [&] { descriptor.getYxEncryptionKeyHash(); }},
             {"yxEncKeyDerivSalt", [&] { descriptor.getYxEncryptionKeyDerivationSalt(); }},
         }) {
        EXPECT_TRUE(
            throwsError(std::string("VMDK descriptor value '") + key + "' not found.", {}, get));
    }
}

TEST(DescriptorValues, BadTextIsReportedByTheFrameworksParsers) {
    EXPECT_TRUE(
        throwsError("Invalid number: 'one'", {}, [] { parse("version=one").getVersion(); }));
    EXPECT_TRUE(throwsError("Invalid number: 'xyz'", {}, [] { parse("CID=xyz").getContentID(); }));
    EXPECT_TRUE(throwsError("Invalid number: '0x1'", {},
                            [] { parse("parentCID=0x1").getParentContentID(); }));
    EXPECT_TRUE(throwsError("Invalid number: ''", {},
                            [] { parse("ddb.geometry.heads = \"\"").getGeometryHeads(); }));
    EXPECT_TRUE(throwsError("Invalid boolean value: 'maybe'", {}, [] {
        parse("yxCreateExtentFilesOnDemand=maybe").getYxCreateExtentFilesOnDemand();
    }));
    EXPECT_TRUE(throwsError("Invalid hexadecimal data: 'abc'", {},
                            [] { parse("yxEncIV=abc").getYxEncryptionIV(); }));
}

TEST(DescriptorValues, NumbersAreNarrowedToTheirTypes) {
    EXPECT_EQ(parse("version=4294967297").getVersion(), 1);
    EXPECT_EQ(parse("CID=1ffffffff").getContentID(), 0xffffffffu);
    EXPECT_EQ(parse("parentCID=FFFFFFFFFFFFFFFE").getParentContentID(), 0xfffffffeu)
        << "a parent's ID may have 64 unsigned bits";
    EXPECT_TRUE(throwsError("Invalid number: 'FFFFFFFFFFFFFFFE'", {},
                            [] { parse("CID=FFFFFFFFFFFFFFFE").getContentID(); }));
}

// Storing

Bytes stored(CVMDKDescriptor& descriptor, int targetSize, std::size_t zeroBufferSize) {
    ScriptedStream stream;
    descriptor.store(stream, targetSize, zeroBuffer(zeroBufferSize));
    return stream.content();
}

TEST(DescriptorStore, WritesTheTextAndFillsTheAreaWithZeros) {
    CVMDKDescriptor descriptor = parse("encoding=\"UTF-8\"\nk=" + kUmlautUTF8 + "\n");
    EXPECT_EQ(stored(descriptor, 100, 100),
              ByteBuilder().text("encoding=\"UTF-8\"\nk=\xC3\xBC\n").zeros(100 - 22).bytes());
}

TEST(DescriptorStore, WritesTheTextInOnePieceAtTheStreamsPosition) {
    using Operation = ScriptedStream::Operation;
    constexpr auto kWrite = ScriptedStream::Kind::Write;
    ScriptedStream stream(Bytes(1024, 0xEE));
    stream.seek(512);
    CVMDKDescriptor descriptor = parse("encoding=\"UTF-8\"\n");
    descriptor.store(stream, 300, zeroBuffer(283));
    EXPECT_EQ(stream.operationsOf(kWrite),
              (std::vector<Operation>{{kWrite, 512, 17}, {kWrite, 529, 283}}));
    EXPECT_EQ(stream.content(), ByteBuilder()
                                    .fill(512, 0xEE)
                                    .text("encoding=\"UTF-8\"\n")
                                    .zeros(283)
                                    .fill(212, 0xEE)
                                    .bytes());
}

TEST(DescriptorStore, AlwaysStoresUTF8) {
    CVMDKDescriptor descriptor = parse("# \xFC\nEncoding=\"latin1\"\nRW 1 SPARSE \"\xFC.vmdk\"\n");
    EXPECT_EQ(
        stored(descriptor, 44, 0),
        test_support::fromText("# \xC3\xBC\nEncoding=\"UTF-8\"\nRW 1 SPARSE \"\xC3\xBC.vmdk\"\n"));
    CVMDKDescriptor withoutEncoding = parse("version=1\n# c\n");
    EXPECT_EQ(stored(withoutEncoding, 31, 0),
              test_support::fromText("version=1\nencoding=\"UTF-8\"\n# c\n"));
}

TEST(DescriptorStore, TextThatOutgrowsItsAreaIsRefusedBeforeAnythingIsWritten) {
    ScriptedStream stream;
    CVMDKDescriptor descriptor = parse("encoding=\"latin1\"\n");
    EXPECT_TRUE(throwsError("Internal error: actual VMDK descriptor size exceeds target size "
                            "(actual size: 17, target size: 16",
                            {}, [&] { descriptor.store(stream, 16, zeroBuffer(0)); }));
    EXPECT_TRUE(throwsError("Internal error: actual VMDK descriptor size exceeds target size "
                            "(actual size: 17, target size: -1",
                            {}, [&] { descriptor.store(stream, -1, zeroBuffer(0)); }));
    EXPECT_EQ(stream.content().size(), 0u);
    EXPECT_EQ(text(descriptor), "encoding=\"UTF-8\"\n") << "the changed value stays";
    EXPECT_EQ(stored(descriptor, 17, 0).size(), 17u);
}

TEST(DescriptorStore, SizeIsCountedInBytes) {
    ScriptedStream stream;
    CVMDKDescriptor descriptor = parse("encoding=\"UTF-8\"\n#" + kUmlautUTF8 + "\n");
    EXPECT_TRUE(throwsError("Internal error: actual VMDK descriptor size exceeds target size "
                            "(actual size: 21, target size: 20",
                            {}, [&] { descriptor.store(stream, 20, zeroBuffer(0)); }));
}

TEST(DescriptorStore, ZeroBufferThatIsTooSmallIsRefusedBeforeAnythingIsWritten) {
    ScriptedStream stream;
    CVMDKDescriptor descriptor = parse("encoding=\"UTF-8\"\n");
    EXPECT_TRUE(throwsError("Internal error: pad buffer too small (size: 82, needed: 83", {},
                            [&] { descriptor.store(stream, 100, zeroBuffer(82)); }));
    EXPECT_EQ(stream.content().size(), 0u);
}

TEST(DescriptorStore, TextThatWouldLosePartOfItselfIsRefused) {
    for (wxUniChar const character : {wxUniChar(0), wxUniChar(0x110000)}) {
        ScriptedStream stream;
        CVMDKDescriptor descriptor = parse("k=v\n");
        yx::String value = "a";
        value.wx() += character;
        descriptor.setValue("k", value, false, true);
        EXPECT_TRUE(throwsError("Internal error: VMDK descriptor text cannot be stored.", {},
                                [&] { descriptor.store(stream, 1000, zeroBuffer(1000)); }));
        EXPECT_EQ(stream.content().size(), 0u);
    }
}

TEST(DescriptorStore, FailureOfTheStreamPassesThrough) {
    ScriptedStream stream;
    stream.failOnce(ScriptedStream::Kind::Write);
    CVMDKDescriptor descriptor = parse("k=v\n");
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::IOFailure, "Scripted failure.", {{"uri", "test:/stream"}},
        [&] { descriptor.store(stream, 1000, zeroBuffer(1000)); }));
}

TEST(DescriptorStore, ManyExtentLinesComeThrough) {
    CVMDKDescriptor descriptor = parse("version=1\ncreateType=\"x\"\n");
    for (int i = 0; i < 30000; ++i) {
        descriptor.addExtentEntry(
            yx::makeObject<CVMDKExtentInfo>("RW", 4192256 + i, "SPARSE",
                                            "disk-" + yx::toString(i) + ".vmdk", -1)
                .get());
    }
    descriptor.setAdapterType("ide");
    CVMDKDescriptor const again(toBuffer(stored(descriptor, 0x200000, 0x200000)));
    auto const extents = extentsOf(again);
    ASSERT_EQ(extents.getSize(), 30000);
    EXPECT_EQ(extents[29999]->toString(), "RW 4222255 SPARSE \"disk-29999.vmdk\"");
    EXPECT_EQ(again.getAdapterType(), "ide");
}

// Any text

/// Texts made of the parts that the parser looks for, and of bytes that mean nothing to it.
class TextMaker {
public:
    explicit TextMaker(unsigned int seed) : m_random(seed) {}

    std::string make() {
        static std::vector<std::string> const kParts = {
            "\n",
            "\n",
            "\n",
            "\r\n",
            " ",
            "=",
            "\"",
            "#",
            "RW ",
            "10 ",
            "SPARSE ",
            "\"f\"",
            "ddb.",
            "encoding=",
            "latin1",
            "\"utf-8\"",
            "version",
            "CID",
            "\t",
            "-1",
            "99999999999999999999",
            "\xC3\xBC",
            "\xFC",
            std::string(1, '\0'),
            "x",
            "\v",
            "\xF4\x90\x80\x80",
            "\xED\xA0\x80",
        };
        std::string result;
        for (std::size_t left = m_random() % 24; left > 0; --left) {
            if (m_random() % 16 == 0)
                result += static_cast<char>(m_random());
            else
                result += kParts[m_random() % kParts.size()];
        }
        return result;
    }

private:
    std::mt19937 m_random;
};

void expectStableText(std::string const& source) {
    CVMDKDescriptor descriptor = parse(source);
    std::string const once = text(descriptor);
    std::string const twice = text(CVMDKDescriptor(toBuffer(stored(descriptor, 2000, 2000))));
    ASSERT_EQ(twice, text(descriptor)) << "read as " << once;
}

TEST(Descriptor, NoBytesDoWorseThanAnError) {
    constexpr unsigned int kSeed = 815;
    SCOPED_TRACE(kSeed);
    LogCapture log;
    TextMaker maker(kSeed);
    for (int i = 0; i < 100000; ++i) {
        std::string const source = maker.make();
        if (i % 4 == 0)
            expectStableText(source);
        else
            parse(source);
        if (HasFatalFailure()) {
            ADD_FAILURE() << "text " << i << ": " << testing::PrintToString(source);
            return;
        }
        log.clear();
    }
}

TEST(Descriptor, LinesAreSplitAsTheTokenizerSplitsThem) {
    TextMaker maker(4711);
    for (int i = 0; i < 2000; ++i) {
        // Comments are kept verbatim, so every line of this text can be told from the result.
        std::string source;
        for (char const character : maker.make())
            source += character == '\n' ? "\n#"
                      : static_cast<unsigned char>(character) - 1u < 0x7Fu
                          ? std::string(1, character)
                          : "?";
        source = "#" + source;
        if (i % 3 == 0)
            source += "\n";
        std::string expected;
        wxStringTokenizer tokens(wxString::FromUTF8(source.data(), source.size()), "\n",
                                 wxTOKEN_RET_EMPTY_ALL);
        while (tokens.HasMoreTokens()) {
            yx::String const token = tokens.GetNextToken();
            if (tokens.HasMoreTokens() || !token.isEmpty())
                expected += token.toStdString() + "\n";
        }
        ASSERT_EQ(rewritten(source), expected) << testing::PrintToString(source);
    }
}

TEST(Descriptor, KeysMatchAsTheirLowerCaseFormsDo) {
    TextMaker maker(99);
    for (int i = 0; i < 2000; ++i) {
        yx::String const left = yx::String::fromUTF8("k" + maker.make());
        yx::String right = left;
        if (i % 2 == 0)
            right.wx().MakeUpper();
        if (i % 5 == 0)
            right += "x";
        CVMDKDescriptor descriptor;
        descriptor.setValue(left, "v", false, true);
        ASSERT_EQ(descriptor.hasValue(right), left.wx().Lower() == right.wx().Lower())
            << left << " and " << right;
    }
}

} // namespace
