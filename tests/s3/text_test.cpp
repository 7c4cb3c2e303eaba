#include <gtest/gtest.h>

#include "integrations/s3/digests.h"
#include "integrations/s3/escaped_text.h"
#include "integrations/s3/xml_text.h"

namespace s3_test {
namespace {

using kelm::s3::escape;
using kelm::s3::findElements;
using kelm::s3::findText;
using kelm::s3::toXMLText;
using kelm::s3::unescape;

TEST(EscapedText, KeepsWhatNeedsNoEscape) {
    EXPECT_EQ(escape("aZ09-._~", false), "aZ09-._~");
    EXPECT_EQ(escape("a/b c\xff", false), "a%2Fb%20c%FF");
    EXPECT_EQ(escape("a/b+c", true), "a/b%2Bc");
}

TEST(EscapedText, ComesBack) {
    EXPECT_EQ(unescape("a%2fb%20c%FF+"), "a/b c\xff+");
    EXPECT_EQ(unescape("a+b%2B", true), "a b+");
    for (char const* const bad : {"%", "%1", "%g0", "a%"})
        EXPECT_EQ(unescape(bad), std::nullopt) << bad;
}

TEST(EscapedText, DigestsAreThoseOfTheStandards) {
    EXPECT_EQ(kelm::s3::toHex(kelm::s3::sha256("abc")),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(kelm::s3::toHex(kelm::s3::md5("abc")), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(kelm::s3::toHex(kelm::s3::hmacSHA256("Jefe", "what do ya want for nothing?")),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
    EXPECT_EQ(kelm::s3::toBase64(""), "");
    EXPECT_EQ(kelm::s3::toBase64("f"), "Zg==");
    EXPECT_EQ(kelm::s3::toBase64("foobar"), "Zm9vYmFy");
}

TEST(XMLText, FindsElementsOfOneName) {
    std::string_view const xml = "<r><Key>a</Key><KeyCount>2</KeyCount><Key x=\"1\">b&amp;</Key>"
                                 "<Key/></r>";
    EXPECT_EQ(findElements(xml, "Key"), (std::vector<std::string_view>{"a", "b&amp;", ""}));
    EXPECT_EQ(findText(xml, "KeyCount"), "2");
    EXPECT_EQ(findText(xml, "None"), std::nullopt);
}

TEST(XMLText, WhatBreaksOffIsLeftOut) {
    for (char const* const bad : {"<Key", "<Key>", "<Key>a", "<Key>a</Ke", ""})
        EXPECT_EQ(findText(bad, "Key"), std::nullopt) << bad;
}

TEST(XMLText, ResolvesEntities) {
    EXPECT_EQ(findText("<a>&lt;&gt;&amp;&quot;&apos;&#34;&#x22;&#xD;</a>", "a"), "<>&\"'\"\"\r");
    EXPECT_EQ(findText("<a>&none;&#0;&#;&#999999999999;& ;</a>", "a"),
              "&none;&#0;&#;&#999999999999;& ;");
    EXPECT_EQ(toXMLText("\"a<&>'\""), "&quot;a&lt;&amp;&gt;&apos;&quot;");
}

} // namespace
} // namespace s3_test
