// What holds for URIs and paths of any text, tried on random ones.

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "yx/uri.h"

namespace name_properties_test {

namespace {

using yx::CBadPathError;
using yx::CError;
using yx::CIOError;
using yx::CUnixPathTraits;
using yx::CURI;
using yx::CWindowsPathTraits;
using yx::String;

constexpr unsigned kSeed = 20240917;
constexpr int kRounds = 2500;

/// Texts made of what means something to one of the parsers.
class RandomText {
public:
    explicit RandomText(unsigned seed) : m_engine(seed) {}

    std::string next() {
        static std::vector<std::string> const kTokens = {"a",
                                                         "b",
                                                         "C",
                                                         ".",
                                                         "..",
                                                         "...",
                                                         "/",
                                                         "//",
                                                         "\\",
                                                         "\\\\",
                                                         ":",
                                                         "?",
                                                         "#",
                                                         "@",
                                                         "[",
                                                         "]",
                                                         "%",
                                                         "%41",
                                                         "%2F",
                                                         "%2e",
                                                         "%2E%2e",
                                                         "%3a",
                                                         "%5C",
                                                         "%00",
                                                         "%ff",
                                                         "%C3%A4",
                                                         "%25",
                                                         "%4",
                                                         " ",
                                                         "C:",
                                                         "c:\\",
                                                         "file:",
                                                         "file:///",
                                                         "file://localhost",
                                                         "http://",
                                                         "UNC\\",
                                                         "\\\\?\\",
                                                         "\\\\.\\",
                                                         "//?/",
                                                         "/./",
                                                         "/../",
                                                         "\\..\\",
                                                         "\\.\\",
                                                         "../",
                                                         "..\\",
                                                         ":80",
                                                         "\xC3\xA4",
                                                         "\xF0\x9F\x98\x80",
                                                         std::string("\0", 1),
                                                         "\x01",
                                                         "~",
                                                         "!",
                                                         "[::1]"};
        std::string text;
        std::size_t const count = m_engine() % 9;
        for (std::size_t i = 0; i < count; ++i)
            text += kTokens[m_engine() % kTokens.size()];
        return text;
    }

private:
    std::mt19937 m_engine;
};

/// Printable form for messages.
std::string show(std::string const& text) {
    return testing::PrintToString(text);
}

bool parse(std::string const& text, CURI& uri) {
    try {
        uri = CURI(String::fromUTF8(text));
        return true;
    } catch (CError const& error) {
        EXPECT_EQ("Invalid URI: '" + text + "'", error.getMessage().toStdString());
        return false;
    }
}

bool isURIText(std::string const& text) {
    return text.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "-._~:/?#[]@!$&'()*+,;=%") == std::string::npos;
}

bool hasDotSegment(std::string const& path, bool mayStartWithDots) {
    std::string rest = path;
    while (mayStartWithDots && rest.substr(0, 3) == "../")
        rest.erase(0, 3);
    rest = "/" + rest + "/";
    return rest.find("/./") != std::string::npos || rest.find("/../") != std::string::npos;
}

void expectWholeURI(CURI const& uri, std::string const& source) {
    std::string const text = uri.toString(true).toStdString();
    EXPECT_TRUE(isURIText(text)) << show(source) << " gives " << show(text);
    EXPECT_TRUE(CURI(uri.toString(true)) == uri) << show(source) << " gives " << show(text);
}

void expectNormalForm(CURI const& uri, std::string const& source) {
    CURI const normalized = uri.toNormalized();
    expectWholeURI(normalized, source);
    EXPECT_TRUE(normalized.toNormalized() == normalized) << show(source);
    std::string const path = normalized.getPath().toStdString();
    bool const isReference = !normalized.isAbsolute() && !normalized.getHostOptRef();
    EXPECT_EQ(std::string::npos, path.find("//")) << show(source);
    EXPECT_FALSE(hasDotSegment(path, isReference)) << show(source) << " gives " << path;
}

/// False for a name that is no UTF-8.
bool tryGetName(CURI const& uri, String& name) {
    try {
        name = uri.getName();
        return true;
    } catch (CIOError const& error) {
        EXPECT_EQ(error.getIOCode(), CIOError::NotSupported) << error.what();
        return false;
    }
}

TEST(AnyURI, KeepsItsPromises) {
    SCOPED_TRACE("seed " + std::to_string(kSeed));
    RandomText random(kSeed);
    CURI const folder("file:///x/y");
    int parsedCount = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::string const text = random.next();
        CURI uri;
        if (!parse(text, uri))
            continue;
        ++parsedCount;
        expectWholeURI(uri, text);
        expectNormalForm(uri, text);
        expectWholeURI(uri.getParent(), text);
        String name;
        if (tryGetName(uri, name)) {
            EXPECT_EQ(name.toStdString(), (uri.getTitle() + uri.getExtension()).toStdString());
        }

        CURI const resolved = folder << uri;
        EXPECT_TRUE(resolved.isAbsolute()) << show(text);
        expectWholeURI(resolved, text);
        EXPECT_TRUE(resolved.toNormalized() == (folder << uri.toNormalized()).toNormalized())
            << show(text);
        if (HasFailure())
            return;
    }
    EXPECT_GT(parsedCount, kRounds / 4);
}

TEST(AnyURI, IsAPathOfTheSystemOrRefused) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 1));
    RandomText random(kSeed + 1);
    int pathCount = 0;
    for (int round = 0; round < kRounds; ++round) {
        CURI uri;
        if (!parse(random.next(), uri))
            continue;
        for (auto const toPath : {yx::toUnixPath, yx::toWindowsPath}) {
            try {
                String const path = toPath(uri);
                EXPECT_EQ(wxString::npos, path.wx().find('\0')) << uri;
                ++pathCount;
            } catch (CIOError const& error) {
                EXPECT_EQ(CIOError::NotSupported, error.getIOCode());
            }
        }
    }
    EXPECT_GT(pathCount, kRounds / 10);
}

/// Repeated separators as one.
std::string collapse(std::string path) {
    for (std::size_t at = path.find("//"); at != std::string::npos; at = path.find("//"))
        path.erase(at, 1);
    return path;
}

TEST(AnyUnixPath, SurvivesTheWayThroughAURI) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 2));
    RandomText random(kSeed + 2);
    for (int round = 0; round < kRounds; ++round) {
        std::string const text = random.next();
        if (text.find('\0') != std::string::npos)
            continue;
        CURI const uri(yx::TPathImpl<CUnixPathTraits>(String::fromUTF8(text), true, false), false);
        EXPECT_EQ(!text.empty() && text[0] == '/', uri.isAbsolute()) << show(text);
        expectWholeURI(uri, text);
        EXPECT_EQ(collapse(text), yx::toUnixPath(CURI(uri.toString(true))).toStdString());
        expectNormalForm(uri, text);
        if (HasFailure())
            return;
    }
}

TEST(AnyWindowsPath, GivesAURI) {
    SCOPED_TRACE("seed " + std::to_string(kSeed + 3));
    RandomText random(kSeed + 3);
    int uriCount = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::string const text = random.next();
        try {
            yx::TPathImpl<CWindowsPathTraits> const path(String::fromUTF8(text), true, false);
            CURI const uri(path, false);
            EXPECT_EQ(path.isAbsolute(), uri.isAbsolute()) << show(text);
            expectWholeURI(uri, text);
            expectNormalForm(uri, text);
            ++uriCount;
        } catch (CBadPathError const& error) {
            EXPECT_EQ("Invalid path: " + text, error.getMessage().toStdString());
        }
        if (HasFailure())
            return;
    }
    EXPECT_GT(uriCount, kRounds / 2);
}

template <class Traits>
void expectNormalizes(unsigned seed) {
    using Path = yx::TPathImpl<Traits>;
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomText random(seed);
    Path const reference("/x/y", true, false);
    int normalizedCount = 0;
    for (int round = 0; round < kRounds; ++round) {
        std::string const text = random.next();
        for (bool const makeAbsolute : {false, true}) {
            try {
                Path const path(String::fromUTF8(text), true, false);
                Path const normalized = path.normalize(makeAbsolute, reference);
                Path const again(normalized.getPath(), true, false);
                EXPECT_EQ(normalized.getPath().toStdString(), again.getPath().toStdString());
                EXPECT_EQ(normalized.getPath().toStdString(),
                          again.normalize(false, Path()).getPath().toStdString())
                    << show(text);
                EXPECT_TRUE(!makeAbsolute || path.isEmpty() || normalized.isAbsolute())
                    << show(text);
                ++normalizedCount;
            } catch (CBadPathError const& error) {
                EXPECT_EQ("Invalid path: " + text, error.getMessage().toStdString());
            }
        }
        if (testing::Test::HasFailure())
            return;
    }
    EXPECT_GT(normalizedCount, kRounds);
}

TEST(AnyUnixPath, HasANormalFormOrLeadsAboveItsRoot) {
    expectNormalizes<CUnixPathTraits>(kSeed + 4);
}

TEST(AnyWindowsPath, HasANormalFormOrLeadsAboveItsRoot) {
    expectNormalizes<CWindowsPathTraits>(kSeed + 5);
}

} // namespace

} // namespace name_properties_test
