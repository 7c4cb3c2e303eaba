#include "yx/path_traits.h"

#include <gtest/gtest.h>

namespace {

using yx::String;

/// Opens the protected operations.
struct Unix : yx::CUnixPathTraits {
    using CUnixPathTraits::finalizeNormalizedPath;
    using CUnixPathTraits::getRootLength;
    using CUnixPathTraits::normalizeComponent;
    using CUnixPathTraits::normalizeRoot;
    using CUnixPathTraits::normalizeSeparators;
    using CUnixPathTraits::pathNeedsToBeNormalizedToBeValid;
};

struct Windows : yx::CWindowsPathTraits {
    using CWindowsPathTraits::finalizeNormalizedPath;
    using CWindowsPathTraits::getRootLength;
    using CWindowsPathTraits::normalizeComponent;
    using CWindowsPathTraits::normalizeRoot;
    using CWindowsPathTraits::normalizeSeparators;
    using CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid;
};

std::string changed(void (*operation)(String&), char const* text) {
    String result = text;
    operation(result);
    return result.toStdString();
}

TEST(UnixPathTraits, HaveOneSeparator) {
    EXPECT_TRUE(Unix::isSep(L'/'));
    EXPECT_FALSE(Unix::isSep(L'\\'));
    EXPECT_FALSE(Unix::isSep(L':'));
    EXPECT_TRUE(Unix::getSep() == "/");
    EXPECT_EQ(L'/', Unix::getSepChar());
    EXPECT_TRUE(Unix::getAllSeps() == "/");
}

TEST(UnixPathTraits, CallAPathAbsoluteThatStartsWithASeparator) {
    for (char const* path : {"/", "//", "/a"})
        EXPECT_TRUE(Unix::isAbsolute(path)) << path;
    for (char const* path : {"", "a", "./a", "\\a", "C:/a", "~"})
        EXPECT_FALSE(Unix::isAbsolute(path)) << path;
}

TEST(UnixPathTraits, HaveRunsOfSeparatorsAsRoots) {
    struct Case {
        char const* path;
        int length;
        int rebuilt;
    };
    constexpr Case kCases[] = {{"", -1, -1}, {"a/b", -1, -1}, {"/", 1, 1},
                               {"/a", 1, 1}, {"///a", 3, 1},  {"//", 2, 1}};
    for (Case const& c : kCases) {
        int rebuilt = 0;
        EXPECT_EQ(c.length, Unix::getRootLength(c.path, &rebuilt)) << c.path;
        EXPECT_EQ(c.rebuilt, rebuilt) << c.path;
        EXPECT_EQ(c.length, Unix::getRootLength(c.path, nullptr)) << c.path;
    }
}

TEST(UnixPathTraits, ChangeNothingButTheRoot) {
    EXPECT_EQ("/", changed(Unix::normalizeRoot, "///"));
    EXPECT_EQ("a\\b", changed(Unix::normalizeSeparators, "a\\b"));
    EXPECT_EQ("a. ", changed(Unix::normalizeComponent, "a. "));
    EXPECT_EQ("/a/", changed(Unix::finalizeNormalizedPath, "/a/"));
    for (char const* path : {"", "/..", "//a/./b", "a\\b"})
        EXPECT_FALSE(Unix::pathNeedsToBeNormalizedToBeValid(path)) << path;
}

TEST(PathTraits, JustOneTypeIsNative) {
    EXPECT_NE(Unix::isNativePathType(), Windows::isNativePathType());
}

TEST(WindowsPathTraits, PreferTheBackslashAndAcceptTheSlash) {
    EXPECT_TRUE(Windows::isSep(L'\\'));
    EXPECT_TRUE(Windows::isSep(L'/'));
    EXPECT_FALSE(Windows::isSep(L':'));
    EXPECT_TRUE(Windows::getSep() == "\\");
    EXPECT_EQ(L'\\', Windows::getSepChar());
    EXPECT_TRUE(Windows::getAllSeps() == "\\/");
    EXPECT_EQ("\\a\\b", changed(Windows::normalizeSeparators, "/a\\b"));
}

TEST(WindowsPathTraits, CallAPathAbsoluteThatHasADriveAndSeparatorOrALeadingSeparator) {
    for (char const* path : {"C:\\", "c:/a", "\\a", "/a", "\\\\server\\share", "\\\\?\\C:\\"})
        EXPECT_TRUE(Windows::isAbsolute(path)) << path;
    for (char const* path : {"", "a", "C:", "C:a", "1:\\a", "CC:\\a", ".\\a", "\xC3\xA4:\\"})
        EXPECT_FALSE(Windows::isAbsolute(path)) << path;
}

TEST(WindowsPathTraits, KnowTheRoots) {
    struct Case {
        char const* path;
        int length;
        int rebuilt;
        char const* root;
    };
    constexpr Case kCases[] = {
        {"", -1, -1, nullptr},
        {"a\\b", -1, -1, nullptr},
        {"1:\\a", -1, -1, nullptr},
        {"c:\\a", 3, 3, "C:\\"},
        {"C:/\\/a", 5, 3, "C:\\"},
        {"C:a", 2, 2, "C:."},
        {"\\a", 1, 1, "\\"},
        {"///a", 3, 1, "\\"},
        {"\\\\server\\share\\a", 15, 15, "\\\\server\\share\\"},
        {"//server//share", 15, 15, "\\\\server\\share\\"},
        {"\\\\server", 8, 9, "\\\\server\\"},
        {"\\\\?\\C:\\a", 7, 7, "\\\\?\\C:\\"},
        {"\\\\?\\C:", 6, 7, "\\\\?\\C:\\"},
        {"\\\\?\\UNC\\server\\share\\a", 21, 21, "\\\\?\\UNC\\server\\share\\"},
        {"\\\\.\\COM1", 8, 9, "\\\\.\\COM1\\"},
        {"\\\\?\\", 4, 4, "\\\\?\\"},
    };
    for (Case const& c : kCases) {
        int rebuilt = 0;
        EXPECT_EQ(c.length, Windows::getRootLength(c.path, &rebuilt)) << c.path;
        EXPECT_EQ(c.rebuilt, rebuilt) << c.path;
        EXPECT_EQ(c.length, Windows::getRootLength(c.path, nullptr)) << c.path;
        if (c.root) {
            String root = String(c.path).wx().Left(static_cast<size_t>(c.length));
            Windows::normalizeRoot(root);
            EXPECT_EQ(c.root, root.toStdString()) << c.path;
        }
    }
}

TEST(WindowsPathTraits, DropTrailingDotsAndBlanksOfAComponent) {
    EXPECT_EQ("a", changed(Windows::normalizeComponent, "a. . "));
    EXPECT_EQ(" a.b", changed(Windows::normalizeComponent, " a.b"));
    EXPECT_EQ("", changed(Windows::normalizeComponent, "... "));
    EXPECT_EQ("", changed(Windows::normalizeComponent, ""));
}

TEST(WindowsPathTraits, FinalizeADriveRelativePath) {
    EXPECT_EQ("C:a", changed(Windows::finalizeNormalizedPath, "C:.\\a"));
    EXPECT_EQ("C:", changed(Windows::finalizeNormalizedPath, "c:."));
    EXPECT_EQ("C:a", changed(Windows::finalizeNormalizedPath, "c:a"));
    EXPECT_EQ("C:.a", changed(Windows::finalizeNormalizedPath, "C:.a"));
    EXPECT_EQ("C:\\a", changed(Windows::finalizeNormalizedPath, "C:\\a"));
    EXPECT_EQ("a", changed(Windows::finalizeNormalizedPath, "a"));
}

TEST(WindowsPathTraits, OnlyVerbatimPathsNeedToBeNormalizedToBeValid) {
    for (char const* path : {"\\\\?\\C:/a", "\\\\?\\C:\\.", "\\\\?\\C:\\a\\..", "\\\\?\\C:\\a\\\\b",
                             "\\\\?\\UNC\\s\\t\\..\\a"})
        EXPECT_TRUE(Windows::pathNeedsToBeNormalizedToBeValid(path)) << path;
    for (char const* path : {"", "a\\..\\b", "C:\\a/b", "\\\\server\\share\\..", "\\\\.\\C:\\..",
                             "//?/C:/..", "\\\\?\\C:\\a", "\\\\?\\C:\\a\\", "\\\\?\\C:\\a.",
                             "\\\\?\\..\\a", "\\\\?\\UNC\\..\\..\\a"})
        EXPECT_FALSE(Windows::pathNeedsToBeNormalizedToBeValid(path)) << path;
}

} // namespace
