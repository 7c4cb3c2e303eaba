#include "yx/path_impl.h"

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/support/temp_directory.h"

namespace {

using test_support::throwsError;
using yx::CBadPathError;
using yx::CUnixPathTraits;
using yx::CWindowsPathTraits;
using yx::String;
using UnixPath = yx::TPathImpl<CUnixPathTraits>;
using WindowsPath = yx::TPathImpl<CWindowsPathTraits>;

UnixPath unixPath(char const* path) {
    return UnixPath(path, true, false);
}

WindowsPath windowsPath(char const* path) {
    return WindowsPath(path, true, false);
}

template <class Action>
void expectBadPath(char const* path, Action const& action) {
    try {
        action();
        ADD_FAILURE() << path << ": nothing was thrown";
    } catch (CBadPathError const& error) {
        EXPECT_EQ("Invalid path: " + std::string(path), error.getMessage().toStdString());
        EXPECT_EQ(-1, error.getCode());
        EXPECT_TRUE(error.getDetail().isEmpty());
        EXPECT_EQ(0, error.getParams().getCount());
        EXPECT_EQ(nullptr, error.getCause());
    }
}

struct NormalizeCase {
    char const* path;
    char const* normalized;
    bool isNormalized;
};

TEST(UnixPathNormalize, GivesTheCanonicalForm) {
    constexpr NormalizeCase kCases[] = {
        {"", "", false},
        {"/", "/", true},
        {"///", "/", true},
        {"/a/b", "/a/b", true},
        {"//a//b//", "/a/b", true},
        {"/./a/./b/.", "/a/b", true},
        {"/a/../b", "/b", true},
        {"/a/b/../..", "/", true},
        {"/a/b/../../c", "/c", true},
        {"a", "a", false},
        {"a/", "a", false},
        {"./a", "a", false},
        {".", "", false},
        {"..", "..", false},
        {"../..", "../..", false},
        {".//..///..//a", "../../a", false},
        {"a/../..", "..", false},
        {"a/b/../../../..", "../..", false},
        {"../a/..", "..", false},
        {"a\\..\\b", "a\\..\\b", false},
        {"/a./b ", "/a./b ", true},
        {"/...", "/...", true},
        {"/C:/a", "/C:/a", true},
    };
    for (NormalizeCase const& c : kCases) {
        UnixPath const normalized = unixPath(c.path).normalize(false, UnixPath());
        EXPECT_EQ(c.normalized, normalized.getPath().toStdString()) << c.path;
        EXPECT_EQ(c.isNormalized, normalized.getIsNormalized()) << c.path;
    }
}

TEST(UnixPathNormalize, RefusesToLeadAboveTheRoot) {
    for (char const* path : {"/..", "/../a", "///..", "/a/../..", "/a/../../b", "/./.."})
        expectBadPath(path, [&] { unixPath(path).normalize(false, UnixPath()); });
}

TEST(UnixPathNormalize, NamesThePathAsItWasGivenWhenTheReferenceMadeItAbsolute) {
    expectBadPath("../../x", [] { unixPath("../../x").normalize(true, unixPath("/a")); });
}

TEST(UnixPathNormalize, MakesAbsoluteOnDemand) {
    UnixPath const normalized = unixPath("../b/./c").normalize(true, unixPath("/x/a"));
    EXPECT_EQ("/x/b/c", normalized.getPath().toStdString());
    EXPECT_TRUE(normalized.getIsNormalized());
    // A relative reference leaves a relative path, which counts as normalised all the same.
    UnixPath const relative = unixPath("b").normalize(true, unixPath("a/.."));
    EXPECT_EQ("b", relative.getPath().toStdString());
    EXPECT_TRUE(relative.getIsNormalized());
    EXPECT_TRUE(UnixPath().normalize(true, UnixPath()).getIsNormalized());
}

TEST(UnixPathNormalize, ReturnsANormalizedPathAsItIs) {
    UnixPath const path("a//../b", true, true);
    for (bool const makeAbsolute : {false, true}) {
        UnixPath const normalized = path.normalize(makeAbsolute, unixPath("/x"));
        EXPECT_EQ("a//../b", normalized.getPath().toStdString());
        EXPECT_TRUE(normalized.getIsNormalized());
    }
}

TEST(WindowsPathNormalize, GivesTheCanonicalForm) {
    constexpr NormalizeCase kCases[] = {
        {"", "", false},
        {"C:\\", "C:\\", true},
        {"c:/", "C:\\", true},
        {"c:\\\\a//b", "C:\\a\\b", true},
        {"C:\\a\\..\\b\\.", "C:\\b", true},
        {"C:\\a\\b\\..\\..", "C:\\", true},
        {"C:\\a. \\b...", "C:\\a\\b", true},
        {"C:\\a\\. .\\b", "C:\\a\\b", true},
        {"C:\\a\\.. \\b", "C:\\a\\b", true},
        {"C:\\ a\\.b", "C:\\ a\\.b", true},
        {"C:\\...", "C:\\", true},
        {"a/b\\c", "a\\b\\c", false},
        {"a\\..\\..", "..", false},
        {"..\\..\\a", "..\\..\\a", false},
        {".\\a", "a", false},
        {"\\a\\b", "\\a\\b", true},
        {"/", "\\", true},
        {"\\\\\\a", "\\a", true},
        {"\\\\server\\share", "\\\\server\\share\\", true},
        {"//server//share//a/../b", "\\\\server\\share\\b", true},
        {"\\\\server", "\\\\server\\", true},
        {"\\\\server\\share\\a\\..", "\\\\server\\share\\", true},
        // A path of a drive's current folder stays one.
        {"C:", "C:", false},
        {"c:a\\b", "C:a\\b", false},
        {"C:.\\a", "C:a", false},
        {"C:a\\..", "C:", false},
        {"C:.", "C:", false},
        {"C:.hidden", "C:.hidden", false},
        {"a\\..\\c:\\b", "C:\\b", true},
        // Paths that the system takes as they stand.
        {"\\\\?\\C:\\a\\b", "\\\\?\\C:\\a\\b", true},
        {"\\\\?\\C:/a/../b", "\\\\?\\C:\\b", true},
        {"//?/UNC/server/share/a/..", "\\\\?\\UNC\\server\\share\\", true},
        {"\\\\.\\PhysicalDrive0", "\\\\.\\PhysicalDrive0\\", true},
        {"\\\\?\\Volume{1}\\a\\.\\b", "\\\\?\\Volume{1}\\a\\b", true},
        {"\\\\?\\", "\\\\?\\", true},
    };
    for (NormalizeCase const& c : kCases) {
        WindowsPath const path(c.path, false, false);
        WindowsPath const normalized = path.normalize(false, WindowsPath());
        EXPECT_EQ(c.normalized, normalized.getPath().toStdString()) << c.path;
        EXPECT_EQ(c.isNormalized, normalized.getIsNormalized()) << c.path;
        WindowsPath const again = windowsPath(normalized.getPath().toStdString().c_str());
        EXPECT_EQ(c.normalized, again.normalize(false, WindowsPath()).getPath().toStdString());
    }
}

TEST(WindowsPathNormalize, RefusesToLeadAboveTheRoot) {
    for (char const* path : {"C:\\..", "C:\\a\\..\\..\\b", "\\..", "/../a", "\\\\server\\share\\..",
                             "\\\\server\\share\\a\\..\\..", "C:..", "C:..\\a"})
        expectBadPath(path, [&] { windowsPath(path).normalize(false, WindowsPath()); });
}

TEST(PathConstructor, KeepsWhatItIsGiven) {
    UnixPath const path("a//b/..", true, false);
    EXPECT_EQ("a//b/..", path.getPath().toStdString());
    EXPECT_FALSE(path.getIsNormalized());
    UnixPath const normalized("a//b/..", true, true);
    EXPECT_EQ("a//b/..", normalized.getPath().toStdString());
    EXPECT_TRUE(normalized.getIsNormalized());
    UnixPath const empty;
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_FALSE(empty.isAbsolute());
    EXPECT_FALSE(empty.getIsNormalized());
}

TEST(PathConstructor, NormalizesAPathThatCannotBeUsedAsItStands) {
    struct Case {
        char const* path;
        char const* kept;
    };
    constexpr Case kCases[] = {
        {"\\\\?\\C:\\a\\..\\b", "\\\\?\\C:\\b"},
        {"\\\\?\\C:\\a\\.\\b", "\\\\?\\C:\\a\\b"},
        {"\\\\?\\C:\\a\\\\b", "\\\\?\\C:\\a\\b"},
        {"\\\\?\\C:\\a/b", "\\\\?\\C:\\a\\b"},
        {"\\\\?\\C:\\a.\\b", "\\\\?\\C:\\a.\\b"},
        {"\\\\?\\C:\\a\\b\\", "\\\\?\\C:\\a\\b\\"},
        {"\\\\.\\C:\\a\\..\\b", "\\\\.\\C:\\a\\..\\b"},
        {"C:\\a\\..\\b", "C:\\a\\..\\b"},
        {"C:/a//b", "C:/a//b"},
    };
    for (Case const& c : kCases) {
        WindowsPath const path(c.path, true, false);
        EXPECT_EQ(c.kept, path.getPath().toStdString());
        EXPECT_FALSE(path.getIsNormalized()) << c.path;
        EXPECT_EQ(c.path, WindowsPath(c.path, false, false).getPath().toStdString());
        EXPECT_EQ(c.path, WindowsPath(c.path, true, true).getPath().toStdString());
    }
}

TEST(PathConstructor, RefusesAPathThatNeedsNormalizingAndLeadsAboveItsRoot) {
    expectBadPath("\\\\?\\C:\\a\\..\\..\\b", [] { windowsPath("\\\\?\\C:\\a\\..\\..\\b"); });
    expectBadPath("\\\\?\\C:/..", [] { windowsPath("\\\\?\\C:/.."); });
}

TEST(PathToAbsolute, ReturnsAbsoluteAndEmptyPathsAsTheyAre) {
    EXPECT_EQ("/a//b", unixPath("/a//b").toAbsolute(unixPath("/x")).getPath().toStdString());
    EXPECT_EQ("", UnixPath().toAbsolute(unixPath("/x")).getPath().toStdString());
    EXPECT_EQ("C:/a", windowsPath("C:/a").toAbsolute(WindowsPath()).getPath().toStdString());
    EXPECT_EQ("", WindowsPath().toAbsolute(WindowsPath()).getPath().toStdString());
    EXPECT_TRUE(UnixPath("/a", true, true).toAbsolute(UnixPath()).getIsNormalized());
}

TEST(PathToAbsolute, AppendsToTheReference) {
    EXPECT_EQ("/x/a/../b", unixPath("a/../b").toAbsolute(unixPath("/x")).getPath().toStdString());
    EXPECT_EQ("x/a", unixPath("a").toAbsolute(unixPath("x")).getPath().toStdString());
    EXPECT_EQ("C:\\x\\a",
              windowsPath("a").toAbsolute(windowsPath("C:\\x")).getPath().toStdString());
}

TEST(PathToAbsolute, OfAForeignTypeWithoutReferenceIsRefused) {
    EXPECT_TRUE(throwsError("TPathImpl::toAbsolute without reference folder can only be used with "
                            "the native path type.",
                            {}, [] { windowsPath("a").toAbsolute(WindowsPath()); }));
    EXPECT_TRUE(throwsError("TPathImpl::toAbsolute without reference folder can only be used with "
                            "the native path type.",
                            {}, [] { windowsPath("a").normalize(true, WindowsPath()); }));
}

/// Runs in a folder of its own.
class CurrentFolder : public testing::Test {
protected:
    void SetUp() override { std::filesystem::current_path(folder()); }
    void TearDown() override { std::filesystem::current_path(m_before); }

    std::filesystem::path const& folder() const { return m_directory.path(); }

private:
    std::filesystem::path const m_before = std::filesystem::current_path();
    test_support::TempDirectory m_directory;
};

TEST_F(CurrentFolder, IsTheReferenceOfLastResort) {
    EXPECT_EQ(folder().string(), yx::getCurrentWorkDirectoryAsString().toStdString());
    EXPECT_EQ(folder().string() + "/a/../b",
              unixPath("a/../b").toAbsolute(UnixPath()).getPath().toStdString());
    UnixPath const normalized = unixPath("a/../b").normalize(true, UnixPath());
    EXPECT_EQ(folder().string() + "/b", normalized.getPath().toStdString());
    EXPECT_TRUE(normalized.getIsNormalized());
}

TEST_F(CurrentFolder, MayHaveANameBeyondASCII) {
    std::filesystem::create_directory("\xC3\xA4 b");
    std::filesystem::current_path("\xC3\xA4 b");
    EXPECT_EQ(folder().string() + "/\xC3\xA4 b",
              yx::getCurrentWorkDirectoryAsString().toStdString());
}

TEST_F(CurrentFolder, WhoseNameIsNoUTF8IsRefusedByName) {
    for (char const* const name : {"d\xFF", "d\xED\xA0\x80"}) {
        std::filesystem::create_directory(folder() / name);
        std::filesystem::current_path(folder() / name);
        std::string const escaped = std::string(name) == "d\xFF" ? "/d%FF" : "/d%ED%A0%80";
        std::string const message =
            "The path of the current directory is no UTF-8: " + folder().string() + escaped;
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::NotSupported, message, {},
                                                [] { yx::getCurrentWorkDirectoryAsString(); }));
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::NotSupported, message, {},
                                                [] { unixPath("a").toAbsolute(UnixPath()); }));
    }
}

TEST_F(CurrentFolder, ThatIsGoneIsAnIOError) {
    std::filesystem::create_directory("gone");
    std::filesystem::current_path("gone");
    std::filesystem::remove(folder() / "gone");
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::IOFailure, "Cannot get the current directory: No such file or directory", {},
        [] { yx::getCurrentWorkDirectoryAsString(); }));
}

struct AppendCase {
    char const* base;
    bool isBaseNormalized;
    char const* relative;
    char const* joined;
    bool isNormalized;
};

TEST(PathAppend, JoinsUnixPaths) {
    constexpr AppendCase kCases[] = {
        // An empty path changes nothing.
        {"/a", false, "", "/a", false},
        {"/a", true, "", "/a", true},
        {"", false, "", "", false},
        // An absolute one wins.
        {"/a", true, "/b//c", "/b//c", false},
        {"/a", false, "/", "/", false},
        // A plain name behind a normalised base.
        {"/a", true, "b", "/a/b", true},
        {"/", true, "b", "/b", true},
        {"/a/", true, "b", "/a/b", true},
        {"", true, "b", "b", true},
        {"/a", true, "b\\c", "/a/b\\c", true},
        // Anything else.
        {"/a", true, ".", "/a/.", false},
        {"/a", true, "..", "/a/..", false},
        {"/a", true, "b/c", "/a/b/c", false},
        {"/a", true, "b/", "/a/b/", false},
        {"/a", true, "...", "/a/...", true},
        {"/a", false, "b", "/a/b", false},
        {"/a/", false, "b", "/a/b", false},
        {"/a//", false, "b", "/a//b", false},
        {"", false, "b", "b", false},
        {"", false, "../b", "../b", false},
    };
    for (AppendCase const& c : kCases) {
        UnixPath const base(c.base, true, c.isBaseNormalized);
        UnixPath const joined = base.append(unixPath(c.relative));
        EXPECT_EQ(c.joined, joined.getPath().toStdString()) << c.base << " + " << c.relative;
        EXPECT_EQ(c.isNormalized, joined.getIsNormalized()) << c.base << " + " << c.relative;
    }
}

TEST(PathAppend, JoinsWindowsPaths) {
    constexpr AppendCase kCases[] = {
        {"C:\\a", true, "D:\\b", "D:\\b", false},
        {"C:\\a", true, "\\b", "\\b", false},
        {"C:\\a", true, "\\\\s\\t", "\\\\s\\t", false},
        {"C:\\a", true, "b", "C:\\a\\b", true},
        {"C:\\", true, "b", "C:\\b", true},
        {"C:/", true, "b", "C:/b", true},
        {"C:\\a", true, "b. ", "C:\\a\\b", true},
        {"C:\\a", true, "...", "C:\\a", true},
        {"C:\\a", true, " ", "C:\\a", true},
        {"C:\\a", true, "b/c", "C:\\a\\b/c", false},
        {"C:\\a", true, "b\\c", "C:\\a\\b\\c", false},
        {"C:\\a", false, "b. ", "C:\\a\\b. ", false},
        {"a", false, "..", "a\\..", false},
    };
    for (AppendCase const& c : kCases) {
        WindowsPath const base(c.base, true, c.isBaseNormalized);
        WindowsPath const joined = base.append(windowsPath(c.relative));
        EXPECT_EQ(c.joined, joined.getPath().toStdString()) << c.base << " + " << c.relative;
        EXPECT_EQ(c.isNormalized, joined.getIsNormalized()) << c.base << " + " << c.relative;
    }
}

TEST(PathAppend, GivesTheAbsolutePathItselfBack) {
    UnixPath const absolute("/b", true, true);
    EXPECT_TRUE(unixPath("/a").append(absolute).getIsNormalized());
}

/// Traits whose every step leaves a trace in the text.
class TracingTraits : public yx::CPathTraitsBase {
public:
    static bool isAbsolute(String const& path) {
        return path.wx().StartsWith("<") || path.wx().StartsWith("[");
    }
    static bool isSep(wchar_t character) { return character == L'|' || character == L'!'; }
    static String getSep() { return "|"; }
    static wchar_t getSepChar() { return L'|'; }
    static String getAllSeps() { return "|!"; }
    static bool isNativePathType() { return false; }
    static int getRootLength(String const& path, int* rebuiltLength) {
        if (rebuiltLength)
            *rebuiltLength = 3;
        return path.wx().StartsWith("<") ? 2 : -1;
    }
    static void normalizeSeparators(String& path) { path.wx().Replace("!", "|"); }
    static void normalizeRoot(String& root) { root = "[" + root + "]"; }
    static void normalizeComponent(String& component) {
        if (component == "drop")
            component = "";
        else
            component += "'";
    }
    static void finalizeNormalizedPath(String& path) { path += "."; }
    static bool pathNeedsToBeNormalizedToBeValid(String const& path) {
        return path.wx().StartsWith("<!");
    }
};

using TracingPath = yx::TPathImpl<TracingTraits>;

TEST(PathAlgorithm, TakesItsStepsInOrder) {
    TracingPath const rooted("<xa!b|drop!.||c", true, false);
    TracingPath const normalized = rooted.normalize(false, TracingPath());
    EXPECT_EQ("[<x]|a'|b'|c'.", normalized.getPath().toStdString());
    EXPECT_TRUE(normalized.getIsNormalized());

    TracingPath const relative("a!..|..!b", true, false);
    EXPECT_EQ("..|b'.", relative.normalize(false, TracingPath()).getPath().toStdString());
    EXPECT_FALSE(relative.normalize(false, TracingPath()).getIsNormalized());
}

TEST(PathAlgorithm, ConstructorTakesOnlyTheTextOfTheNormalizedPath) {
    TracingPath const path("<!a", true, false);
    EXPECT_EQ("[<|]|a'.", path.getPath().toStdString());
    EXPECT_FALSE(path.getIsNormalized());
    EXPECT_EQ("<!a", TracingPath("<!a", false, false).getPath().toStdString());
    EXPECT_EQ("<!a", TracingPath("<!a", true, true).getPath().toStdString());
}

TEST(PathAlgorithm, ComponentThatIsDroppedStillCountsForNothing) {
    expectBadPath("<xdrop|..",
                  [] { TracingPath("<xdrop|..", true, false).normalize(false, TracingPath()); });
}

TEST(PathAlgorithm, AppendOfANameFinalizesTheJoinedText) {
    TracingPath const base("a", true, true);
    TracingPath const joined = base.append(TracingPath("b", true, false));
    EXPECT_EQ("a|b'.", joined.getPath().toStdString());
    EXPECT_TRUE(joined.getIsNormalized());
    EXPECT_EQ("a", base.append(TracingPath("drop", true, false)).getPath().toStdString());
    EXPECT_EQ("a!b'.", TracingPath("a!", true, true)
                           .append(TracingPath("b", true, false))
                           .getPath()
                           .toStdString());
}

} // namespace
