#include "yx/string.h"

#include <map>
#include <sstream>
#include <unordered_map>
#include <vector>

#include <gtest/gtest.h>
#include <wx/tokenzr.h>

namespace {

using yx::String;

TEST(String, IsConstructedFromEveryKindOfText) {
    EXPECT_EQ("", String().toStdString());
    EXPECT_EQ("abc", String("abc").toStdString());
    EXPECT_EQ("abc", String(L"abc").toStdString());
    EXPECT_EQ("abc", String(wxString("abc")).toStdString());
    EXPECT_EQ("abc", String(String("abc")).toStdString());
    EXPECT_EQ("", String(static_cast<char const*>(nullptr)).toStdString());
    EXPECT_EQ("", String(static_cast<wchar_t const*>(nullptr)).toStdString());
}

TEST(String, IsAssignedFromEveryKindOfText) {
    String text = "old";
    text = "abc";
    EXPECT_EQ("abc", text.toStdString());
    text = wxString("def");
    EXPECT_EQ("def", text.toStdString());
    String const other = "ghi";
    text = other;
    EXPECT_EQ("ghi", text.toStdString());
    String const& same = text;
    text = same;
    EXPECT_EQ("ghi", text.toStdString());
}

TEST(String, CopyIsIndependent) {
    String const original = "abc";
    String copy = original;
    copy += "d";
    EXPECT_EQ("abc", original.toStdString());
    EXPECT_EQ("abcd", copy.toStdString());
}

TEST(String, TakesTextsOver) {
    for (char const* text : {"", "abc", "a text that is longer than what fits into the object"}) {
        String source = text;
        String taken = std::move(source);
        EXPECT_EQ(text, taken.toStdString());
        EXPECT_TRUE(source.isEmpty());

        String assigned = "old text, and not a short one either";
        assigned = std::move(taken);
        EXPECT_EQ(text, assigned.toStdString());
        EXPECT_TRUE(taken.isEmpty());
        String& same = assigned;
        assigned = std::move(same);
        EXPECT_EQ(text, assigned.toStdString());

        wxString characters = assigned.wx();
        EXPECT_EQ(text, String(std::move(characters)).toStdString());
        EXPECT_TRUE(characters.empty());
        taken += "again";
        EXPECT_EQ("again", taken.toStdString());
    }
}

TEST(String, LongTextsAreReadAsShortOnesAre) {
    std::string text;
    for (int i = 0; i < 500; ++i) {
        EXPECT_EQ(text, String::fromUTF8(text).toStdString());
        EXPECT_EQ(i, String::fromUTF8(text).getLength());
        // One byte of Latin-1 anywhere makes all of it Latin-1.
        std::string latin1 = text + "y";
        latin1[static_cast<std::size_t>(i / 2)] = '\xE4';
        String const decoded = String::fromUTF8(latin1);
        EXPECT_EQ(i + 1, decoded.getLength());
        EXPECT_EQ(0xE4u, decoded.wx()[static_cast<std::size_t>(i / 2)].GetValue());
        text += static_cast<char>('a' + i % 26);
    }
}

TEST(String, Appends) {
    String text = "a";
    text += String("b");
    text += "c\xC3\xA4";
    text += L'd';
    text += L'\x20AC';
    EXPECT_EQ("abc\xC3\xA4"
              "d\xE2\x82\xAC",
              text.toStdString());
    text += text;
    EXPECT_EQ(12, text.getLength());
}

TEST(String, JoinsInEitherOrder) {
    EXPECT_EQ("ab", (String("a") + String("b")).toStdString());
    EXPECT_EQ("ab", (String("a") + "b").toStdString());
    EXPECT_EQ("ab", ("a" + String("b")).toStdString());
    EXPECT_EQ("\xC3\xA4"
              "b",
              ("\xC3\xA4" + String("b")).toStdString());
}

TEST(String, ComparesTheWholeTextAndTheCase) {
    String const text = "RW";
    EXPECT_TRUE(text == "RW");
    EXPECT_FALSE(text == "rw");
    EXPECT_FALSE(text == "R");
    EXPECT_FALSE(text == "RWx");
    EXPECT_FALSE(text != "RW");
    EXPECT_TRUE(text != "rw");
    EXPECT_TRUE(text == String("RW"));
    EXPECT_TRUE(text != String("RWx"));
    EXPECT_TRUE(String("\xC3\xA4") == "\xC3\xA4");
    EXPECT_TRUE(String() == "");
}

TEST(String, CountsCharactersAndNotBytes) {
    EXPECT_EQ(0, String().getLength());
    EXPECT_EQ(3, String("abc").getLength());
    EXPECT_EQ(2, String("\xC3\xA4\xE2\x82\xAC").getLength());
    EXPECT_TRUE(String().isEmpty());
    EXPECT_TRUE(String("").isEmpty());
    EXPECT_FALSE(String(" ").isEmpty());
}

TEST(String, TrimRemovesWhiteSpaceFromBothEnds) {
    struct Case {
        char const* text;
        char const* trimmed;
        char const* leftTrimmed;
    };
    constexpr Case kCases[] = {
        {"", "", ""},
        {" ", "", ""},
        {" \t\r\n\v\f", "", ""},
        {"a", "a", "a"},
        {" a ", "a", "a "},
        {"\r\n a\tb \r\n", "a\tb", "a\tb \r\n"},
        {"\ta", "a", "a"},
        {"a\n", "a", "a\n"},
        {"\xC2\xA0"
         "a\xC2\xA0",
         "\xC2\xA0"
         "a\xC2\xA0",
         "\xC2\xA0"
         "a\xC2\xA0"},
        {"\b a", "\b a", "\b a"},
    };
    for (Case const& c : kCases) {
        String text = c.text;
        text.trim();
        EXPECT_EQ(c.trimmed, text.toStdString());
        text = c.text;
        text.trimLeft();
        EXPECT_EQ(c.leftTrimmed, text.toStdString());
    }
}

TEST(String, GivesUTF8EndedByAZero) {
    wxCharBuffer const utf8 = String(L"a\x00E4\x20AC\x1F600").toUTF8();
    EXPECT_EQ(10u, utf8.length());
    EXPECT_STREQ("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80", utf8.data());
    EXPECT_STREQ("", String().toUTF8().data());
}

TEST(String, KeepsZeroCharacters) {
    String const text = String::fromUTF8(std::string_view("a\0b", 3));
    EXPECT_EQ(3, text.getLength());
    EXPECT_EQ(std::string("a\0b", 3), text.toStdString());
}

TEST(String, TakesWhatIsNoUTF8AsLatin1) {
    struct Case {
        char const* name;
        std::string bytes;
        std::string utf8;
    };
    Case const kCases[] = {
        {"lone continuation", "\x80", "\xC2\x80"},
        {"cut short", "a\xC3", "a\xC3\x83"},
        {"overlong", "\xC0\xAF", "\xC3\x80\xC2\xAF"},
        {"overlong in three bytes", "\xE0\x80\xAF", "\xC3\xA0\xC2\x80\xC2\xAF"},
        {"the last overlong in three bytes", "\xE0\x9F\xBF", "\xC3\xA0\xC2\x9F\xC2\xBF"},
        {"overlong in four bytes", "\xF0\x80\x80\xAF", "\xC3\xB0\xC2\x80\xC2\x80\xC2\xAF"},
        {"the last overlong in four bytes", "\xF0\x8F\xBF\xBF", "\xC3\xB0\xC2\x8F\xC2\xBF\xC2\xBF"},
        {"the first surrogate", "\xED\xA0\x80", "\xC3\xAD\xC2\xA0\xC2\x80"},
        {"the last surrogate", "\xED\xBF\xBF", "\xC3\xAD\xC2\xBF\xC2\xBF"},
        {"a pair of surrogates", "\xED\xA0\xBD\xED\xB8\x80",
         "\xC3\xAD\xC2\xA0\xC2\xBD\xC3\xAD\xC2\xB8\xC2\x80"},
        {"an overlong zero", "\xE0\x80\x80", "\xC3\xA0\xC2\x80\xC2\x80"},
        {"above the last code point", "\xF4\x90\x80\x80", "\xC3\xB4\xC2\x90\xC2\x80\xC2\x80"},
        {"four byte form beyond Unicode", "\xF5\x80\x80\x80", "\xC3\xB5\xC2\x80\xC2\x80\xC2\x80"},
        {"latin 1", "\xE4x", "\xC3\xA4x"},
    };
    for (Case const& c : kCases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.utf8, String::fromUTF8(c.bytes).toStdString());
        EXPECT_EQ(c.utf8, String(c.bytes.c_str()).toStdString());
        EXPECT_FALSE(String::tryFromUTF8(c.bytes).has_value());
    }
}

TEST(String, TryFromUTF8TakesWhatIsUTF8) {
    for (char const* utf8 : {"", "abc", "\xC3\xA4", "\xE2\x82\xAC", "\xF0\x9F\x98\x80",
                             "\xF4\x8F\xBF\xBF", "\xEF\xBF\xBF", "\xC2\x80", "\xDF\xBF",
                             "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80", "\xF0\x90\x80\x80"}) {
        auto const text = String::tryFromUTF8(utf8);
        ASSERT_TRUE(text.has_value()) << utf8;
        EXPECT_EQ(utf8, text->toStdString());
    }
}

TEST(String, GivesAReplacementForWhatIsNoCharacter) {
    String const text = wxString(L"a\x110000"
                                 L"b");
    EXPECT_EQ("a\xEF\xBF\xBD"
              "b",
              text.toStdString());
    EXPECT_STREQ("a\xEF\xBF\xBD"
                 "b",
                 text.toUTF8().data());
}

TEST(String, GivesAReplacementForASurrogate) {
    for (wchar_t const surrogate : {L'\xD800', L'\xDBFF', L'\xDC00', L'\xDFFF'}) {
        String const text = wxString(std::wstring{L'a', surrogate, L'b'});
        EXPECT_EQ("a\xEF\xBF\xBD"
                  "b",
                  text.toStdString());
    }
    for (wchar_t const character : {L'\xD7FF', L'\xE000'}) {
        String const text = wxString(std::wstring{character});
        EXPECT_EQ(text, String::fromUTF8(text.toStdString()));
    }
}

TEST(String, OffersTheWxStringInside) {
    String text = "CreateType=\"monolithicSparse\"";
    String const& constant = text;
    EXPECT_EQ(10u, constant.wx().find('='));
    EXPECT_EQ(11u, constant.wx().find(L'"', 2));
    EXPECT_EQ(10u, constant.wx().find_first_of("=\""));
    EXPECT_EQ(wxString::npos, constant.wx().find('#'));
    EXPECT_TRUE(constant.wx().StartsWith("Create"));
    EXPECT_TRUE(constant.wx().EndsWith("\""));
    EXPECT_TRUE(constant.wx().Contains("Type"));
    EXPECT_EQ("create", constant.wx().Left(6).Lower());
    EXPECT_EQ("Type", constant.wx().Mid(6, 4));
    EXPECT_EQ("Type", constant.wx().substr(6, 4));
    EXPECT_TRUE(constant.wx()[0] == 'C');
    EXPECT_TRUE(constant.wx().Left(6).IsSameAs("CREATE", false));
    text.wx().Replace("\"", "");
    EXPECT_TRUE(text == "CreateType=monolithicSparse");
    EXPECT_TRUE(String(wxString::From8BitData("\xE4")) == "\xC3\xA4");
    EXPECT_TRUE(String(wxString::FromUTF8("\xC3\xA4")) == "\xC3\xA4");
}

TEST(String, FeedsTheTokenizer) {
    wxStringTokenizer tokens(String("a\n\nb\n").wx(), "\n", wxTOKEN_RET_EMPTY_ALL);
    std::vector<std::string> found;
    while (tokens.HasMoreTokens())
        found.push_back(String(tokens.GetNextToken()).toStdString());
    EXPECT_EQ((std::vector<std::string>{"a", "", "b", ""}), found);
}

TEST(String, IsAKeyOfOrderedAndHashedMaps) {
    std::map<String, int> ordered;
    std::unordered_map<String, int> hashed;
    for (char const* key : {"b", "a", "B", "\xC3\xA4", "b"}) {
        ++ordered[key];
        ++hashed[key];
    }
    std::string order;
    for (auto const& [key, count] : ordered)
        order += key.toStdString() + std::to_string(count) + " ";
    EXPECT_EQ("B1 a1 b2 \xC3\xA4"
              "1 ",
              order);
    EXPECT_EQ(4u, hashed.size());
    EXPECT_EQ(2, hashed["b"]);
    EXPECT_EQ(1, hashed["\xC3\xA4"]);
}

TEST(String, OrdersByCodePoint) {
    EXPECT_TRUE(String("a") < String("b"));
    EXPECT_TRUE(String("a") < String("aa"));
    EXPECT_TRUE(String("Z") < String("a"));
    EXPECT_TRUE(String(L"\xFFFD") < String(L"\x1F600"));
    EXPECT_FALSE(String("a") < String("a"));
}

TEST(String, PrintsUTF8) {
    std::ostringstream stream;
    stream << String(L"\x00E4!");
    EXPECT_EQ("\xC3\xA4!", stream.str());
}

TEST(String, ShowsNumbersInDecimal) {
    EXPECT_TRUE(yx::toString(0) == "0");
    EXPECT_TRUE(yx::toString(-2147483647 - 1) == "-2147483648");
    EXPECT_TRUE(yx::toString(4294967295u) == "4294967295");
    EXPECT_TRUE(yx::toString(-9223372036854775807LL - 1) == "-9223372036854775808");
    EXPECT_TRUE(yx::toString(18446744073709551615ULL) == "18446744073709551615");
    EXPECT_TRUE(yx::toString(-5L) == "-5");
    EXPECT_TRUE(yx::toString(5UL) == "5");
}

TEST(String, ShowsFlagsAsWords) {
    EXPECT_TRUE(yx::toString(true) == "true");
    EXPECT_TRUE(yx::toString(false) == "false");
}

TEST(String, ShowsContentIDsInLowerCaseHexadecimal) {
    EXPECT_TRUE(yx::toHexString(0) == "0");
    EXPECT_TRUE(yx::toHexString(0xfffffffeu) == "fffffffe");
    EXPECT_TRUE(yx::toHexString(0x00AB12CDu) == "ab12cd");
}

TEST(String, IsAnObjectToo) {
    yx::P<String> const text = yx::makeObject<String>("abc");
    EXPECT_TRUE(*text == "abc");
}

} // namespace
