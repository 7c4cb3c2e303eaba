#include "kelm/format/file_reference.h"

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"

namespace {

using kelm::vmdkFileReferenceToURI;

struct Case {
    char const* reference;
    char const* uri;
};

constexpr char kBase[] = "file:///vm/my%20disk/";

std::string resolved(char const* base, char const* reference) {
    return vmdkFileReferenceToURI(yx::CURI(base), reference).toString(true).toStdString();
}

TEST(FileReference, FormDecidesHowItIsRead) {
    for (auto const& [reference, uri] : {
             // A drive letter with a separator: a Windows path.
             Case{"C:\\disks\\a.vmdk", "file:///C:/disks/a.vmdk"},
             Case{"C:/disks/a.vmdk", "file:///C:/disks/a.vmdk"},
             Case{"c:\\disks/a b.vmdk", "file:///C:/disks/a%20b.vmdk"},
             Case{"z:/a#b%41.vmdk", "file:///Z:/a%23b%2541.vmdk"},
             Case{"C:\\", "file:///C:/"},
             // A colon before any separator: a URI.
             Case{"file:///disks/a.vmdk", "file:///disks/a.vmdk"},
             Case{"FILE:///disks/./x/../a%2Db.vmdk", "file:///disks/a-b.vmdk"},
             Case{"sftp://user@host:22/disks/a.vmdk", "sftp://user@host:22/disks/a.vmdk"},
             Case{"C:a.vmdk", "c:a.vmdk"},
             Case{"C:", "c:"},
             // A backslash anywhere: a Windows path.
             Case{"sub\\a.vmdk", "file:///vm/my%20disk/sub/a.vmdk"},
             Case{"..\\a.vmdk", "file:///vm/a.vmdk"},
             Case{"sub/x\\a.vmdk", "file:///vm/my%20disk/sub/x/a.vmdk"},
             Case{"sub\\x/../a.vmdk", "file:///vm/my%20disk/sub/a.vmdk"},
             Case{"\\\\server\\share\\a.vmdk", "file://server/share/a.vmdk"},
             Case{"sub\\a:b.vmdk", "file:///vm/my%20disk/sub/a:b.vmdk"},
             // All else: a Unix path.
             Case{"a.vmdk", "file:///vm/my%20disk/a.vmdk"},
             Case{"sub/a.vmdk", "file:///vm/my%20disk/sub/a.vmdk"},
             Case{"../a.vmdk", "file:///vm/a.vmdk"},
             Case{"/disks/a.vmdk", "file:///disks/a.vmdk"},
             Case{"/disks//x/./../a.vmdk", "file:///disks/a.vmdk"},
             Case{"sub/a:b.vmdk", "file:///vm/my%20disk/sub/a:b.vmdk"},
             Case{"/a:b.vmdk", "file:///a:b.vmdk"},
             Case{":a.vmdk", "file:///vm/my%20disk/:a.vmdk"},
             Case{"a?b#c%20d.vmdk", "file:///vm/my%20disk/a%3Fb%23c%2520d.vmdk"},
             Case{"\xC3\xBC.vmdk", "file:///vm/my%20disk/%C3%BC.vmdk"},
         }) {
        EXPECT_EQ(resolved(kBase, reference), uri) << reference;
    }
}

TEST(FileReference, AbsoluteReferenceIgnoresTheBaseFolder) {
    for (char const* const base : {"file:///vm/", "sftp://host/x/", "file:///C:/vm/", ""}) {
        EXPECT_EQ(resolved(base, "/disks/a.vmdk"), "file:///disks/a.vmdk") << base;
        EXPECT_EQ(resolved(base, "D:\\a.vmdk"), "file:///D:/a.vmdk") << base;
        EXPECT_EQ(resolved(base, "file:///a.vmdk"), "file:///a.vmdk") << base;
    }
}

TEST(FileReference, RelativeReferenceFollowsTheBaseFolder) {
    EXPECT_EQ(resolved("sftp://user@host:22/vm/x/", "..\\a.vmdk"), "sftp://user@host:22/vm/a.vmdk");
    EXPECT_EQ(resolved("file:///C:/vm/", "sub/a.vmdk"), "file:///C:/vm/sub/a.vmdk");
    EXPECT_EQ(resolved("file:///vm", "a.vmdk"), "file:///vm/a.vmdk");
}

TEST(FileReference, TwoSpellingsOfOneFileAreEqual) {
    yx::CURI const base(kBase);
    EXPECT_EQ(vmdkFileReferenceToURI(base, "a/./b/../c.vmdk"),
              vmdkFileReferenceToURI(base, "a\\c.vmdk"));
    EXPECT_EQ(vmdkFileReferenceToURI(base, "/vm/my disk/c.vmdk"),
              vmdkFileReferenceToURI(base, "c.vmdk"));
    EXPECT_EQ(vmdkFileReferenceToURI(base, "file:///vm/my%20disk/%63.vmdk"),
              vmdkFileReferenceToURI(base, "c.vmdk"));
    EXPECT_EQ(vmdkFileReferenceToURI(base, "C:/x/c.vmdk"),
              vmdkFileReferenceToURI(base, "c:\\x\\.\\c.vmdk"));
}

TEST(FileReference, LettersOutsideASCIIAreNoDriveLetters) {
    yx::CURI const base(kBase);
    // Neither a drive nor a separator before the colon: read as URI text, as any other.
    EXPECT_EQ(vmdkFileReferenceToURI(base, "sub/\xC3\xA4:/x.vmdk").toString(true),
              "file:///vm/my%20disk/sub/%C3%A4:/x.vmdk");
    EXPECT_FALSE(vmdkFileReferenceToURI(base, "\xC3\xA4:/x.vmdk")
                     .toString(true)
                     .wx()
                     .StartsWith("file:///%C3%A4:"));
}

TEST(FileReference, PathThatMustBeNormalisedMayNotClimbAboveItsRoot) {
    try {
        vmdkFileReferenceToURI(yx::CURI(kBase), "\\\\?\\C:\\..\\..\\a.vmdk");
        ADD_FAILURE() << "no error";
    } catch (yx::CBadPathError const& error) {
        EXPECT_EQ(error.getMessage(), "Invalid path: \\\\?\\C:\\..\\..\\a.vmdk");
        EXPECT_EQ(error.getDetail(), "");
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_EQ(error.getParams().getCount(), 0);
    }
}

TEST(FileReference, BadURITextIsReportedByTheURI) {
    EXPECT_TRUE(test_support::throwsError("Invalid URI: 'file:///a%zz.vmdk'", {}, [] {
        vmdkFileReferenceToURI(yx::CURI(kBase), "file:///a%zz.vmdk");
    }));
}

} // namespace
