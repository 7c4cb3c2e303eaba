#include "yx/number.h"

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "yx/error.h"

namespace number_test {

namespace {

using test_support::throwsError;
using yx::hexDecode;
using yx::hexEncode;
using yx::parseBool;
using yx::parseHexInt64;
using yx::parseInt64;
using yx::String;
using Bytes = yx::TBuffer<unsigned char>;

constexpr __int64 kMin = std::numeric_limits<__int64>::min();
constexpr __int64 kMax = std::numeric_limits<__int64>::max();

struct NumberCase {
    char const* text;
    __int64 value;
};

TEST(ParseInt64, ReadsDecimalText) {
    constexpr NumberCase kCases[] = {
        {"0", 0},
        {"00", 0},
        {"-0", 0},
        {"7", 7},
        {"007", 7},
        {"+12", 12},
        {"-12", -12},
        {"4294967296", 4294967296LL},
        {"9223372036854775807", kMax},
        {"09223372036854775807", kMax},
        {"-9223372036854775807", -kMax},
        {"-9223372036854775808", kMin},
    };
    for (NumberCase const& c : kCases) {
        EXPECT_EQ(c.value, parseInt64(c.text, false)) << c.text;
        EXPECT_EQ(c.value, parseInt64(c.text, true)) << c.text;
    }
}

TEST(ParseInt64, WrapsUnsignedNumbersOnDemandOnly) {
    constexpr NumberCase kCases[] = {
        {"9223372036854775808", kMin},
        {"18446744073709551615", -1},
    };
    for (NumberCase const& c : kCases) {
        EXPECT_EQ(c.value, parseInt64(c.text, true)) << c.text;
        EXPECT_TRUE(throwsError("Invalid number: '" + std::string(c.text) + "'", {},
                                [&] { parseInt64(c.text, false); }));
    }
}

TEST(ParseInt64, RefusesEverythingElse) {
    for (std::string const& text : {std::string(""),
                                    std::string(" "),
                                    std::string("-"),
                                    std::string("+"),
                                    std::string("+-1"),
                                    std::string("--1"),
                                    std::string(" 1"),
                                    std::string("1 "),
                                    std::string("1 2"),
                                    std::string("\t1"),
                                    std::string("1\n"),
                                    std::string("1a"),
                                    std::string("a"),
                                    std::string("0x10"),
                                    std::string("1.0"),
                                    std::string("1,000"),
                                    std::string("1e3"),
                                    std::string("18446744073709551616"),
                                    std::string("-9223372036854775809"),
                                    std::string("99999999999999999999999999999999999999"),
                                    std::string("1\0", 2),
                                    std::string("\xD9\xA1"),
                                    std::string("\xEF\xBC\x91")}) {
        for (bool const wrapUnsigned : {false, true}) {
            EXPECT_TRUE(throwsError("Invalid number: '" + text + "'", {},
                                    [&] { parseInt64(String::fromUTF8(text), wrapUnsigned); }));
        }
    }
}

TEST(ParseHexInt64, ReadsHexadecimalText) {
    constexpr NumberCase kCases[] = {
        {"0", 0},
        {"ffffffff", 0xffffffffLL},
        {"FFFFFFFF", 0xffffffffLL},
        {"fFfE", 0xfffe},
        {"-1", -1},
        {"+a", 10},
        {"0000000000000000000000001", 1},
        {"7fffffffffffffff", kMax},
        {"-8000000000000000", kMin},
    };
    for (NumberCase const& c : kCases) {
        EXPECT_EQ(c.value, parseHexInt64(c.text, false)) << c.text;
        EXPECT_EQ(c.value, parseHexInt64(c.text, true)) << c.text;
    }
}

TEST(ParseHexInt64, WrapsUnsignedNumbersOnDemandOnly) {
    EXPECT_EQ(kMin, parseHexInt64("8000000000000000", true));
    EXPECT_EQ(-1, parseHexInt64("ffffffffffffffff", true));
    EXPECT_TRUE(throwsError("Invalid number: '8000000000000000'", {},
                            [] { parseHexInt64("8000000000000000", false); }));
}

TEST(ParseHexInt64, RefusesEverythingElse) {
    for (char const* text : {"", "-", "0x1", "0X1", "g", "1g", " 1", "1 ", "1h", "#1", "1-",
                             "10000000000000000", "-8000000000000001"}) {
        for (bool const wrapUnsigned : {false, true}) {
            EXPECT_TRUE(throwsError("Invalid number: '" + std::string(text) + "'", {},
                                    [&] { parseHexInt64(text, wrapUnsigned); }));
        }
    }
}

TEST(ParseBool, ReadsWordsOfEitherCaseAndDigits) {
    for (char const* text : {"true", "TRUE", "True", "tRuE", "1"})
        EXPECT_TRUE(parseBool(text)) << text;
    for (char const* text : {"false", "FALSE", "False", "0"})
        EXPECT_FALSE(parseBool(text)) << text;
}

TEST(ParseBool, RefusesEverythingElse) {
    for (char const* text : {"", " true", "true ", "yes", "no", "2", "-1", "01", "tru", "truee"}) {
        EXPECT_TRUE(throwsError("Invalid boolean value: '" + std::string(text) + "'", {},
                                [&] { parseBool(text); }));
    }
}

Bytes bytesOf(std::initializer_list<unsigned char> values) {
    Bytes bytes(static_cast<int>(values.size()), -1);
    std::copy(values.begin(), values.end(), bytes.getData());
    return bytes;
}

TEST(HexEncode, GivesTwoDigitsAByte) {
    EXPECT_EQ("", hexEncode(Bytes()).toStdString());
    EXPECT_EQ("00", hexEncode(bytesOf({0})).toStdString());
    EXPECT_EQ("0f10a5ff", hexEncode(bytesOf({0x0F, 0x10, 0xA5, 0xFF})).toStdString());
}

TEST(HexEncode, StopsAtTheUsedSize) {
    Bytes bytes = bytesOf({1, 2, 3});
    bytes.setUsed(1);
    EXPECT_EQ("01", hexEncode(bytes).toStdString());
}

TEST(HexDecode, ReadsDigitsOfEitherCaseAndSetsTheUsedSize) {
    Bytes bytes(100, -1);
    hexDecode("0f10A5fF", bytes);
    ASSERT_EQ(4, bytes.getUsed());
    EXPECT_EQ((std::vector<int>{0x0F, 0x10, 0xA5, 0xFF}),
              std::vector<int>(bytes.getData(), bytes.getData() + 4));
    hexDecode("", bytes);
    EXPECT_EQ(0, bytes.getUsed());
}

TEST(HexDecode, ReadsEveryByteThatHexEncodeWrites) {
    Bytes all(256, -1);
    for (int i = 0; i < 256; ++i)
        all.getData()[i] = static_cast<unsigned char>(i);
    Bytes decoded;
    hexDecode(hexEncode(all), decoded);
    ASSERT_EQ(256, decoded.getUsed());
    for (int i = 0; i < 256; ++i)
        ASSERT_EQ(i, decoded.getData()[i]);
}

TEST(HexDecode, RefusesEverythingElseAndLeavesTheTargetAlone) {
    for (char const* text :
         {"0", "000", "0g", "g0", " 00", "00 ", "0 ", "0x00", "-1", "\xC3\xA4"}) {
        Bytes bytes = bytesOf({7, 8, 9});
        EXPECT_TRUE(throwsError("Invalid hexadecimal data: '" + std::string(text) + "'", {},
                                [&] { hexDecode(text, bytes); }));
        ASSERT_EQ(3, bytes.getUsed());
        EXPECT_EQ(7, bytes.getData()[0]);
    }
}

TEST(HexDigitValue, KnowsTheDigits) {
    EXPECT_EQ(0, yx::hexDigitValue('0'));
    EXPECT_EQ(9, yx::hexDigitValue('9'));
    EXPECT_EQ(10, yx::hexDigitValue('a'));
    EXPECT_EQ(15, yx::hexDigitValue('F'));
    for (char const character : {'/', ':', '@', 'G', '`', 'g', '\0', '\xFF'})
        EXPECT_EQ(-1, yx::hexDigitValue(character));
}

} // namespace

} // namespace number_test
