#include "host/system/name_text.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"

namespace kelm::host {
namespace {

using namespace std::string_literals;

TEST(NameText, NamesAreShownAsPeopleWriteThem) {
    EXPECT_EQ("/disks/a b%.vmdk", displayName(test_support::toURI("/disks/a b%.vmdk")));
    EXPECT_EQ("mem:///disks/a%20b.vmdk", displayName(yx::CURI("mem:///disks/a b.vmdk")));
}

TEST(NameText, NumbersInNamesCountByTheirValue) {
    std::vector<std::string> const ordered{"",
                                           "a",
                                           "a-2.vmdk",
                                           "a-9",
                                           "a-9b",
                                           "a-010",
                                           "a-10",
                                           "a-10.img",
                                           "a-11",
                                           "a-99999999999999999999999",
                                           "a-100000000000000000000000",
                                           "b"};
    for (std::size_t i = 0; i < ordered.size(); ++i) {
        for (std::size_t j = 0; j < ordered.size(); ++j)
            EXPECT_EQ(i < j, precedesByNumbers(ordered[i], ordered[j]))
                << ordered[i] << ", " << ordered[j];
    }
}

TEST(NameText, WhatCanBeReadIsPrintedAsItIs) {
    for (std::string const text :
         {"", "disk.vmdk", "a b\\x1b\"'", "B\u00fccher \u2013 \u65e5\u672c\u8a9e \U0001F4BE",
          "\ufffd", "\u00a0"})
        EXPECT_EQ(text, printable(text));
}

TEST(NameText, WhatATerminalWouldObeyIsEscaped) {
    struct Case {
        std::string text;
        char const* printed;
    };
    Case const cases[] = {
        {"a\nb\r\tc", "a\\nb\\r\\tc"},
        {"\x1b[2J", "\\x1b[2J"},
        {"a\0b"s, "a\\x00b"},
        {"\x7f", "\\x7f"},
        {"\u0080\u009b2J\u009f", "\\u{80}\\u{9b}2J\\u{9f}"},
        {"a\u2028b\u2029", "a\\u{2028}b\\u{2029}"},
        {"\u061c\u200e\u200f\u202a\u202e\u2066\u2069",
         "\\u{61c}\\u{200e}\\u{200f}\\u{202a}\\u{202e}\\u{2066}\\u{2069}"},
    };
    for (Case const& c : cases)
        EXPECT_EQ(c.printed, printable(c.text));
}

TEST(NameText, BytesThatAreNoUTF8AreEscaped) {
    struct Case {
        char const* text;
        char const* printed;
    };
    Case const cases[] = {
        {"\xff", "\\xff"},
        {"a\x80z", "a\\x80z"},
        {"\xc3", "\\xc3"},
        {"\xc3(", "\\xc3("},
        {"\xe2\x82", "\\xe2\\x82"},
        {"\xe2\x82z", "\\xe2\\x82z"},
        {"\xc0\xaf", "\\xc0\\xaf"},
        {"\xe0\x80\xaf", "\\xe0\\x80\\xaf"},
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        {"\xf8\x88\x80\x80\x80", "\\xf8\\x88\\x80\\x80\\x80"},
        {"\xf0\x9f\x92\xbe\xf0\x9f", "\xf0\x9f\x92\xbe\\xf0\\x9f"},
    };
    for (Case const& c : cases)
        EXPECT_EQ(c.printed, printable(c.text));
}

TEST(NameText, AJSONDocumentKeepsItsMeaning) {
    EXPECT_EQ("{\n  \"a\": \"\\u007f\\u009b\\u202e B\u00fccher \\n\"\n}",
              printableJSON("{\n  \"a\": \"\x7f\u009b\u202e B\u00fccher \\n\"\n}"));
}

} // namespace
} // namespace kelm::host
