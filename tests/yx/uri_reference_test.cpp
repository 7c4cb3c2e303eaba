// References resolved against a base folder.

#include <gtest/gtest.h>

#include "yx/uri.h"

namespace {

using yx::CURI;

struct Case {
    char const* base;
    char const* reference;
    char const* resolved;
};

template <std::size_t N>
void expectResolved(Case const (&cases)[N]) {
    for (Case const& c : cases) {
        CURI const resolved = CURI(c.base) << CURI(c.reference);
        EXPECT_EQ(c.resolved, resolved.toString(true).toStdString())
            << c.base << " << " << c.reference;
        EXPECT_TRUE(CURI(resolved.toString(true)) == resolved) << c.resolved;
    }
}

/// A reference of RFC 3986 section 5.4 and what it gives there for the base "http://a/b/c/d;p?q".
struct RfcCase {
    char const* reference;
    char const* resolved;
};

/// The base as a folder: that of the document that the RFC's base names.
CURI rfcBaseFolder() {
    return CURI("http://a/b/c/d;p?q").getParent();
}

TEST(URIReference, ResolvesTheNormalExamplesOfTheRfc) {
    constexpr RfcCase kCases[] = {
        {"g:h", "g:h"},
        {"g", "http://a/b/c/g"},
        {"./g", "http://a/b/c/g"},
        {"g/", "http://a/b/c/g/"},
        {"/g", "http://a/g"},
        {"//g", "http://g"},
        {"g?y", "http://a/b/c/g?y"},
        {"g#s", "http://a/b/c/g#s"},
        {"g?y#s", "http://a/b/c/g?y#s"},
        {";x", "http://a/b/c/;x"},
        {"g;x", "http://a/b/c/g;x"},
        {"g;x?y#s", "http://a/b/c/g;x?y#s"},
        {".", "http://a/b/c/"},
        {"./", "http://a/b/c/"},
        {"..", "http://a/b/"},
        {"../", "http://a/b/"},
        {"../g", "http://a/b/g"},
        {"../..", "http://a/"},
        {"../../", "http://a/"},
        {"../../g", "http://a/g"},
    };
    for (RfcCase const& c : kCases)
        EXPECT_EQ(c.resolved, (rfcBaseFolder() << CURI(c.reference)).toString(true).toStdString())
            << c.reference;
}

TEST(URIReference, ResolvesTheAbnormalExamplesOfTheRfc) {
    constexpr RfcCase kCases[] = {
        {"../../../g", "http://a/g"},
        {"../../../../g", "http://a/g"},
        {"/./g", "http://a/g"},
        {"/../g", "http://a/g"},
        {"g.", "http://a/b/c/g."},
        {".g", "http://a/b/c/.g"},
        {"g..", "http://a/b/c/g.."},
        {"..g", "http://a/b/c/..g"},
        {"./../g", "http://a/b/g"},
        {"./g/.", "http://a/b/c/g/"},
        {"g/./h", "http://a/b/c/g/h"},
        {"g/../h", "http://a/b/c/h"},
        {"g;x=1/./y", "http://a/b/c/g;x=1/y"},
        {"g;x=1/../y", "http://a/b/c/y"},
        {"g?y/./x", "http://a/b/c/g?y/./x"},
        {"g?y/../x", "http://a/b/c/g?y/../x"},
        {"g#s/./x", "http://a/b/c/g#s/./x"},
        {"g#s/../x", "http://a/b/c/g#s/../x"},
        {"http:g", "http:g"},
    };
    for (RfcCase const& c : kCases)
        EXPECT_EQ(c.resolved, (rfcBaseFolder() << CURI(c.reference)).toString(true).toStdString())
            << c.reference;
}

TEST(URIReference, WithoutAPathStandsForTheFolder) {
    // Here the RFC's examples speak of the document "d;p", and ours of the folder.
    expectResolved({
        {"http://a/b/c/?q", "", "http://a/b/c/?q"},
        {"http://a/b/c?q", "", "http://a/b/c/?q"},
        {"http://a/b/c/?q", "?y", "http://a/b/c/?y"},
        {"http://a/b/c/?q", "#s", "http://a/b/c/?q#s"},
        {"http://a/b/c/?q#f", "?y#s", "http://a/b/c/?y#s"},
        {"http://a/b/c/#f", "", "http://a/b/c/"},
    });
}

TEST(URIReference, TakesTheLeftSideAsAFolderWithAndWithoutASeparator) {
    expectResolved({
        {"file:///d", "a.vmdk", "file:///d/a.vmdk"},
        {"file:///d/", "a.vmdk", "file:///d/a.vmdk"},
        {"file:///d/e", "../a.vmdk", "file:///d/a.vmdk"},
        {"file:///d/e/", "../a.vmdk", "file:///d/a.vmdk"},
        {"file:///", "a.vmdk", "file:///a.vmdk"},
        {"file://", "a.vmdk", "file:///a.vmdk"},
        {"http://h", "a", "http://h/a"},
        {"file:///d?q#f", "a", "file:///d/a"},
    });
}

TEST(URIReference, ThatIsAbsoluteWins) {
    expectResolved({
        {"file:///d/", "file:///x/y", "file:///x/y"},
        {"file:///d/", "http://u:p@h:80/x?q#f", "http://u:p@h:80/x?q#f"},
        {"file:///d/", "C:a.vmdk", "C:a.vmdk"},
        {"file:///d/", "file:a", "file:a"},
        {"file:///d/", "file:///x/../y/.", "file:///y/"},
        {"", "file:///x", "file:///x"},
    });
}

TEST(URIReference, WithAHostKeepsOnlyTheScheme) {
    expectResolved({
        {"http://u:p@h:80/d?q", "//g/x", "http://g/x"},
        {"http://u:p@h:80/d?q", "//g", "http://g"},
        {"http://u:p@h:80/d?q", "/x", "http://u:p@h:80/x"},
        {"http://u:p@h:80/d?q", "x", "http://u:p@h:80/d/x"},
        {"file://server/share/d", "/x", "file://server/x"},
        {"file:///d", "//server/x", "file://server/x"},
    });
}

TEST(URIReference, CannotLeadAboveTheRoot) {
    expectResolved({
        {"file:///d", "../../../a", "file:///a"},
        {"file:///", "..", "file:///"},
        {"file:///d", "/../a", "file:///a"},
        {"foo:a", "../../b", "foo:b"},
    });
}

TEST(URIReference, LeavesTheFolderBeforeRepeatedSeparators) {
    // As the systems do that read such paths.
    expectResolved({
        {"file:///a/b", "..//../x", "file:///x"},
        {"file:///a//b", "../../x", "file:///x"},
        {"file:///a//b", "../x", "file:///a//x"},
        {"file:///a//", "../x", "file:///x"},
        {"file:///d", "a//b", "file:///d/a//b"},
    });
}

TEST(URIReference, AgainstARelativeFolderStaysRelative) {
    expectResolved({
        {"d", "a", "d/a"},
        {"d/e", "../a", "d/a"},
        {"d", "../a", "a"},
        {"d", "../../a", "../a"},
        {"..", "../a", "../../a"},
        {"../d", "a", "../d/a"},
        {"", "a", "a"},
        {"", "../a", "../a"},
        {"", "", ""},
        {"d", "/a", "/a"},
        {"//h/d", "../../a", "//h/a"},
        {"", "./a:b", "a%3Ab"},
        {"d", "..//x", "x"},
    });
}

TEST(URIReference, MayEscapeItsDots) {
    expectResolved({
        {"file:///d/e", "%2E%2e/a", "file:///d/a"},
        {"file:///d/e", "%2e/a/.%2E", "file:///d/e/"},
        {"file:///d/e", "%252e/a", "file:///d/e/%252e/a"},
    });
}

TEST(URIReference, KeepsEscapesAsTheyAre) {
    expectResolved({
        {"file:///d%20e", "a%2fb%41", "file:///d%20e/a%2fb%41"},
        {"file:///d", "a%3Ab", "file:///d/a%3Ab"},
    });
}

TEST(URIReference, ToARelativeNameStandsBesideTheFile) {
    CURI const folder = CURI("file:///disks/child.vmdk").getParent();
    EXPECT_EQ("file:///disks/parent.vmdk",
              (folder << CURI("parent.vmdk")).toString(true).toStdString());
    EXPECT_EQ("file:///base/parent.vmdk",
              (folder << CURI("../base/parent.vmdk")).toString(true).toStdString());
}

} // namespace
