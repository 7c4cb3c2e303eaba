// URIs made of the operating systems' paths, and back.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "yx/uri.h"

namespace {

using test_support::throwsIOError;
using yx::CIOError;
using yx::CUnixPathTraits;
using yx::CURI;
using yx::CWindowsPathTraits;
using yx::String;
using UnixPath = yx::TPathImpl<CUnixPathTraits>;
using WindowsPath = yx::TPathImpl<CWindowsPathTraits>;

CURI fromUnix(String const& path, bool asFolder = false) {
    return CURI(UnixPath(path, true, false), asFolder);
}

CURI fromWindows(String const& path, bool asFolder = false) {
    return CURI(WindowsPath(path, true, false), asFolder);
}

struct PathCase {
    char const* path;
    char const* uri;
};

TEST(URIFromUnixPath, AbsolutePathGivesAFileURI) {
    constexpr PathCase kCases[] = {
        {"/", "file:///"},
        {"/d/a.vmdk", "file:///d/a.vmdk"},
        {"/tmp/a b.vmdk", "file:///tmp/a%20b.vmdk"},
        {"/d/", "file:///d/"},
        {"/d/100%.vmdk", "file:///d/100%25.vmdk"},
        {"/d/%41", "file:///d/%2541"},
        {"/d/a?b#c", "file:///d/a%3Fb%23c"},
        {"/d/a\\b", "file:///d/a%5Cb"},
        {"/d/\xC3\xA4\xE2\x82\xAC", "file:///d/%C3%A4%E2%82%AC"},
        {"/C:/x", "file:///C:/x"},
        {"/a:b", "file:///a:b"},
        {"/d/../a", "file:///d/../a"},
        {"/d/./a", "file:///d/./a"},
        {"//d//a///b", "file:///d/a/b"},
        {"/d/\"<>[]^`{|}\x7F\n", "file:///d/%22%3C%3E%5B%5D%5E%60%7B%7C%7D%7F%0A"},
        {"/d/-._~!$&'()*+,;=:@", "file:///d/-._~!$&'()*+,;=:@"},
    };
    for (PathCase const& c : kCases) {
        CURI const uri = fromUnix(c.path);
        EXPECT_EQ(c.uri, uri.toString(true).toStdString());
        EXPECT_TRUE(uri.isAbsolute());
        ASSERT_TRUE(uri.getHostOptRef().isPresent());
        EXPECT_TRUE(uri.getHostOptRef()->isEmpty());
    }
}

TEST(URIFromUnixPath, RelativePathGivesARelativeReference) {
    constexpr PathCase kCases[] = {
        {"", ""},
        {"a.vmdk", "a.vmdk"},
        {"sub/a.vmdk", "sub/a.vmdk"},
        {"../a.vmdk", "../a.vmdk"},
        {"./a", "./a"},
        {"a:b", "a%3Ab"},
        {":a.vmdk", "%3Aa.vmdk"},
        {"sub/a:b.vmdk", "sub/a:b.vmdk"},
        {"http://x", "http%3A/x"},
        {"a b", "a%20b"},
        {"sub\\a", "sub%5Ca"},
        {"?", "%3F"},
        {"#", "%23"},
        {"..//..//x", "../../x"},
    };
    for (PathCase const& c : kCases) {
        CURI const uri = fromUnix(c.path);
        EXPECT_EQ(c.uri, uri.toString(true).toStdString());
        EXPECT_FALSE(uri.isAbsolute());
        EXPECT_FALSE(uri.getHostOptRef().isPresent());
        EXPECT_FALSE(uri.getEscapedUnicodeQueryOptRef().isPresent());
        EXPECT_FALSE(uri.getFragmentOptRef().isPresent());
    }
}

TEST(URIFromUnixPath, AsFolderEndsInASeparator) {
    EXPECT_EQ("file:///d/", fromUnix("/d", true).toString(true).toStdString());
    EXPECT_EQ("file:///d/", fromUnix("/d/", true).toString(true).toStdString());
    EXPECT_EQ("file:///", fromUnix("/", true).toString(true).toStdString());
    EXPECT_EQ("d/", fromUnix("d", true).toString(true).toStdString());
    EXPECT_EQ("", fromUnix("", true).toString(true).toStdString());
}

TEST(URIFromWindowsPath, AbsolutePathGivesAFileURI) {
    constexpr PathCase kCases[] = {
        {"C:\\disks\\a.vmdk", "file:///C:/disks/a.vmdk"},
        {"C:/disks/a.vmdk", "file:///C:/disks/a.vmdk"},
        {"c:\\disks/a b%.vmdk", "file:///C:/disks/a%20b%25.vmdk"},
        {"C:\\", "file:///C:/"},
        {"C:\\\\a\\\\b", "file:///C:/a/b"},
        {"C:\\a\\..\\b", "file:///C:/b"},
        {"C:\\..\\..\\b", "file:///C:/b"},
        {"C:\\a\\.", "file:///C:/a/"},
        {"C:\\a\\%2e%2e\\b", "file:///C:/a/%252e%252e/b"},
        {"\\\\server\\share\\a.vmdk", "file://server/share/a.vmdk"},
        {"//server/share/a.vmdk", "file://server/share/a.vmdk"},
        {"\\\\server\\share\\..\\..\\a", "file://server/share/a"},
        {"\\\\server\\share", "file://server/share"},
        {"\\\\server", "file://server/"},
        {"\\\\my server\\s", "file://my%20server/s"},
        {"\\disks\\a", "file:///disks/a"},
        {"\\", "file:///"},
        {"\\\\", "file:///"},
        {"\\\\\\a", "file:///a"},
        {"\\..\\a", "file:///a"},
        {"\\\\?\\C:\\a", "file:///C:/a"},
        {"\\\\?\\c:\\a", "file:///C:/a"},
        {"\\\\?\\UNC\\server\\share\\a", "file://server/share/a"},
        {"\\\\?\\unc\\server\\share\\a", "file://server/share/a"},
        {"\\\\.\\PhysicalDrive0", "file://./PhysicalDrive0"},
        {"\\\\?\\Volume{1}\\a", "file://%3F/Volume%7B1%7D/a"},
    };
    for (PathCase const& c : kCases) {
        CURI const uri = fromWindows(c.path);
        EXPECT_EQ(c.uri, uri.toString(true).toStdString()) << c.path;
        EXPECT_TRUE(uri.isAbsolute());
        EXPECT_TRUE(CURI(uri.toString(true)) == uri);
    }
}

TEST(URIFromWindowsPath, RelativePathGivesARelativeReference) {
    constexpr PathCase kCases[] = {
        {"", ""},
        {"a.vmdk", "a.vmdk"},
        {"sub\\a.vmdk", "sub/a.vmdk"},
        {"..\\a.vmdk", "../a.vmdk"},
        {"..\\sub/a b.vmdk", "../sub/a%20b.vmdk"},
        {"sub\\\\a", "sub/a"},
        {"C:a.vmdk", "C%3Aa.vmdk"},
        {"sub\\C:\\a", "sub/C:/a"},
    };
    for (PathCase const& c : kCases) {
        CURI const uri = fromWindows(c.path);
        EXPECT_EQ(c.uri, uri.toString(true).toStdString()) << c.path;
        EXPECT_FALSE(uri.isAbsolute());
    }
}

TEST(URIFromWindowsPath, AsFolderEndsInASeparator) {
    EXPECT_EQ("file:///C:/d/", fromWindows("C:\\d", true).toString(true).toStdString());
    EXPECT_EQ("file:///C:/d/", fromWindows("C:\\d\\", true).toString(true).toStdString());
    EXPECT_EQ("file://server/share/",
              fromWindows("\\\\server\\share", true).toString(true).toStdString());
    EXPECT_EQ("sub/", fromWindows("sub", true).toString(true).toStdString());
}

TEST(URIFromWindowsPath, SpellingsOfOneFileAreEqualWhenNormalized) {
    CURI const file = CURI("file:///C:/d/a.vmdk");
    for (char const* spelling : {"C:\\d\\a.vmdk", "c:/d/a.vmdk", "C:\\x\\..\\d\\.\\a.vmdk",
                                 "C:\\\\d\\a.vmdk", "\\\\?\\C:\\d\\a.vmdk"})
        EXPECT_EQ(file, fromWindows(spelling).toNormalized()) << spelling;
}

/// File names that a URI's syntax could trip over.
std::vector<std::string> oddNames() {
    std::vector<std::string> names = {
        "a b",
        " ",
        "  a  ",
        "100%",
        "%41",
        "%",
        "%%",
        "%zz",
        "a%2Fb",
        "%2e%2e",
        "a?b",
        "?",
        "a#b",
        "#",
        "a\\b",
        "\\",
        "C:\\a",
        "C:",
        "a:b",
        ":",
        ":a",
        "file:",
        "file:a",
        "~",
        "...",
        ".hidden",
        "a.",
        "a..b",
        "[a]",
        "[",
        "@",
        "u:p@h:80",
        "\xC3\xA4",
        "\xE2\x82\xAC",
        "\xF0\x9F\x98\x80",
        "\xE6\x97\xA5\xE6\x9C\xAC",
        "\"",
        "'",
        "<>|{}^`",
        "a+b",
        "a&b=c;d",
        "a,b",
        "!$()*",
        "\t",
        "\n",
        "\x7F",
        "a\xC2\xA0"
        "b",
        "\xEF\xBF\xBD",
        "aux",
        "-",
        "--help",
        "a%20b c",
    };
    for (char character = 1; character > 0; ++character) {
        if (character == '/' || character == '.')
            continue;
        names.push_back(std::string(1, character));
        names.push_back("x" + std::string(1, character) + "y");
        if (character == 127)
            break;
    }
    return names;
}

TEST(NativePath, EveryNameSurvivesTheWayThroughAURIsText) {
    for (std::string const& name : oddNames()) {
        for (std::string const& path :
             {name, "/" + name, "/d/" + name, "d/" + name, name + "/a", "/d/" + name + "/a.vmdk",
              "../" + name, "./" + name, name + "/"}) {
            CURI const uri = fromUnix(String::fromUTF8(path));
            CURI const parsed = uri.toString(true);
            EXPECT_TRUE(parsed == uri) << path;
            EXPECT_EQ(path, yx::toUnixPath(parsed).toStdString());
            EXPECT_EQ(path[0] == '/', parsed.isAbsolute()) << path;
        }
        CURI const normalized = fromUnix(String::fromUTF8("/d/" + name)).toNormalized();
        EXPECT_EQ("/d/" + name, yx::toUnixPath(normalized).toStdString());
        EXPECT_EQ("/d/" + name,
                  yx::toUnixPath(CURI("file:///d") << String::fromUTF8(name)).toStdString());
        EXPECT_EQ(name, normalized.getName().toStdString());
    }
}

TEST(NativePath, OfThisSystemIsAUnixPath) {
    ASSERT_TRUE(CUnixPathTraits::isNativePathType());
    EXPECT_EQ("/tmp/a b.vmdk", yx::toNativePath(CURI("file:///tmp/a%20b.vmdk")).toStdString());
}

TEST(UnixPath, ComesFromAFileURIOrARelativeReference) {
    constexpr PathCase kCases[] = {
        {"/d/a b", "file:///d/a%20b"},
        {"/d/a", "FILE:///d/a"},
        {"/d/a", "file:/d/a"},
        {"/d/a", "file://localhost/d/a"},
        {"/d/a", "file://LocalHost/d/a"},
        {"/", "file:///"},
        {"/C:/a", "file:///C:/a"},
        {"/d/a\\b", "file:///d/a%5Cb"},
        {"/d/../a", "file:///d/../a"},
        {"d/a:b", "d/a:b"},
        {"../a", "../a"},
        {"/a", "/a"},
        {"a:b", "a%3Ab"},
        {"", ""},
    };
    for (PathCase const& c : kCases)
        EXPECT_EQ(c.path, yx::toUnixPath(CURI(c.uri)).toStdString()) << c.uri;
}

struct RefusedCase {
    char const* uri;
    char const* reason;
};

constexpr RefusedCase kRefusedEverywhere[] = {
    {"http://h/a", "its scheme is not \"file\"."},
    {"C:a.vmdk", "its scheme is not \"file\"."},
    {"file:a", "its path is not absolute."},
    {"file:", "its path is not absolute."},
    {"file://u@localhost/a", "it has a user name or a port."},
    {"file://localhost:80/a", "it has a user name or a port."},
    {"file:///a?q", "it has a query or a fragment."},
    {"file:///a#f", "it has a query or a fragment."},
    {"a?", "it has a query or a fragment."},
    {"a#", "it has a query or a fragment."},
    {"file:///a%00b", "a name in its path holds a zero byte or a separator."},
    {"file:///a%2Fb", "a name in its path holds a zero byte or a separator."},
    {"file:///..%2f..%2fetc", "a name in its path holds a zero byte or a separator."},
    {"file:///a%FFb", "its path is no UTF-8."},
    {"file:///%C3", "its path is no UTF-8."},
    {"file:///..%E0%80%AFsecret", "its path is no UTF-8."},
    {"file:///real%E0%80%80.txt", "its path is no UTF-8."},
    {"file:///a%F0%80%80%AFb", "its path is no UTF-8."},
    {"file:///a%C0%AFb", "its path is no UTF-8."},
    {"file:///a%ED%A0%80b", "its path is no UTF-8."},
    {"file:///a%F4%90%80%80b", "its path is no UTF-8."},
};

template <std::size_t N>
void expectRefused(String (*toPath)(CURI const&), RefusedCase const (&cases)[N]) {
    for (RefusedCase const& c : cases) {
        EXPECT_TRUE(
            throwsIOError(CIOError::NotSupported,
                          "The URI names no file of the operating system: " + std::string(c.reason),
                          {{"uri", c.uri}}, [&] { toPath(CURI(c.uri)); }));
    }
}

TEST(UnixPath, RefusesWhatNamesNoFile) {
    expectRefused(yx::toUnixPath, kRefusedEverywhere);
    constexpr RefusedCase kCases[] = {
        {"file://server/share/a", "its host is another system."},
        {"//server/a", "its host is another system."},
    };
    expectRefused(yx::toUnixPath, kCases);
}

TEST(WindowsPath, ComesFromAFileURIOrARelativeReference) {
    constexpr PathCase kCases[] = {
        {"C:\\disks\\a b.vmdk", "file:///C:/disks/a%20b.vmdk"},
        {"C:\\", "file:///C:/"},
        {"C:\\", "file:///C:"},
        {"C:\\a", "file://localhost/C:/a"},
        {"\\\\server\\share\\a", "file://server/share/a"},
        {"\\\\.\\PhysicalDrive0", "file://./PhysicalDrive0"},
        {"\\disks\\a", "file:///disks/a"},
        {"sub\\a", "sub/a"},
        {"..\\a", "../a"},
        {"\\\\server\\a", "//server/a"},
    };
    for (PathCase const& c : kCases)
        EXPECT_EQ(c.path, yx::toWindowsPath(CURI(c.uri)).toStdString()) << c.uri;
}

TEST(WindowsPath, RefusesWhatNamesNoFile) {
    expectRefused(yx::toWindowsPath, kRefusedEverywhere);
    constexpr RefusedCase kCases[] = {
        {"file:///C:/a%5Cb", "a name in its path holds a zero byte or a separator."},
        {"file://a%5Cb/c", "its host is no server's name."},
        {"file://%00/c", "its host is no server's name."},
        {"//a%2Fb/c", "its host is no server's name."},
    };
    expectRefused(yx::toWindowsPath, kCases);
}

TEST(WindowsPath, SurvivesTheWayThroughAURIsText) {
    for (char const* path : {"C:\\disks\\a b%20#?.vmdk", "\\\\server\\share\\\xC3\xA4", "sub\\a",
                             "..\\a", "\\\\?\\Volume{1}\\a", "D:\\"}) {
        CURI const uri = fromWindows(path);
        EXPECT_EQ(path, yx::toWindowsPath(CURI(uri.toString(true))).toStdString());
    }
}

} // namespace
