#include "yx/string.h"

#include <algorithm>
#include <array>
#include <ostream>

#include "yx/memory.h"

namespace yx {

namespace {

constexpr wxUint32 kLastCodePoint = 0x10ffff;

/// Whether the bytes stand for a number above the last code point. wxWidgets reads such numbers but
/// gives no bytes at all for a text that holds one.
bool exceedsCodePoints(std::string_view utf8) {
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        auto const byte = static_cast<unsigned char>(utf8[i]);
        bool const nextIsHigh =
            i + 1 < utf8.size() && static_cast<unsigned char>(utf8[i + 1]) >= 0x90;
        if (byte > 0xf4 || (byte == 0xf4 && nextIsHigh))
            return true;
    }
    return false;
}

bool isAscii(std::string_view bytes) {
    return std::all_of(bytes.begin(), bytes.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

bool isAscii(std::wstring_view characters) {
    return std::all_of(characters.begin(), characters.end(),
                       [](wchar_t character) { return static_cast<wxUint32>(character) < 0x80; });
}

/// Nearly all names and keys are ASCII, and need no converter.
wxString widenAscii(std::string_view ascii) {
    constexpr std::size_t kShort = 128;
    if (ascii.size() > kShort)
        return wxString(std::wstring(ascii.begin(), ascii.end()));
    std::array<wchar_t, kShort> characters;
    std::copy(ascii.begin(), ascii.end(), characters.begin());
    return wxString(characters.data(), ascii.size());
}

std::optional<wxString> tryDecode(std::string_view utf8) {
    if (isAscii(utf8))
        return widenAscii(utf8);
    if (exceedsCodePoints(utf8))
        return std::nullopt;
    wxString text = wxString::FromUTF8(utf8.data(), utf8.size());
    if (text.empty() && !utf8.empty())
        return std::nullopt;
    return text;
}

wxString decode(std::string_view utf8) {
    std::optional<wxString> const text = tryDecode(utf8);
    return text ? *text : wxString::From8BitData(utf8.data(), utf8.size());
}

wxString decode(char const* text) {
    return text ? decode(std::string_view(text)) : wxString();
}

/// The UTF-8 bytes of code points. It goes past wxString's own conversion, which keeps its result
/// inside the string and so is not safe for two readers at once.
std::string encodeCodePoints(std::wstring_view characters) {
    wxMBConvUTF8 const converter;
    std::size_t const length =
        converter.FromWChar(nullptr, 0, characters.data(), characters.size());
    std::string utf8(length, '\0');
    converter.FromWChar(utf8.data(), length, characters.data(), characters.size());
    return utf8;
}

std::string encode(wxString const& text) {
    std::wstring_view const characters(text.wc_str(), text.length());
    if (isAscii(characters)) {
        std::string ascii(characters.size(), '\0');
        std::transform(characters.begin(), characters.end(), ascii.begin(),
                       [](wchar_t character) { return static_cast<char>(character); });
        return ascii;
    }
    auto const isInvalid = [](wchar_t character) {
        return static_cast<wxUint32>(character) > kLastCodePoint;
    };
    if (std::none_of(characters.begin(), characters.end(), isInvalid))
        return encodeCodePoints(characters);

    constexpr wchar_t kReplacement = 0xfffd;
    std::wstring repaired(characters);
    std::replace_if(repaired.begin(), repaired.end(), isInvalid, kReplacement);
    return encodeCodePoints(repaired);
}

bool isSpace(wxUniChar character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

wxString fromAscii(std::string const& text) {
    return wxString::FromAscii(text.data(), text.size());
}

} // namespace

String::String(char const* text) : m_text(decode(text)) {}

String::String(wchar_t const* text) : m_text(text ? wxString(text) : wxString()) {}

String::String(wxString const& text) : m_text(text) {}

String String::fromUTF8(std::string_view utf8) {
    return String(decode(utf8));
}

std::optional<String> String::tryFromUTF8(std::string_view utf8) {
    std::optional<wxString> const text = tryDecode(utf8);
    return text ? std::optional<String>(*text) : std::nullopt;
}

String& String::operator=(char const* text) {
    m_text = decode(text);
    return *this;
}

String& String::operator=(wxString const& text) {
    m_text = text;
    return *this;
}

String& String::operator+=(String const& text) {
    m_text += text.m_text;
    return *this;
}

String& String::operator+=(char const* text) {
    m_text += decode(text);
    return *this;
}

String& String::operator+=(wchar_t character) {
    m_text += character;
    return *this;
}

bool String::operator==(char const* text) const {
    return m_text == decode(text);
}

bool String::operator!=(char const* text) const {
    return !(*this == text);
}

void String::trim() {
    size_t end = m_text.length();
    while (end > 0 && isSpace(m_text[end - 1]))
        --end;
    m_text.resize(end);
    trimLeft();
}

void String::trimLeft() {
    size_t start = 0;
    while (start < m_text.length() && isSpace(m_text[start]))
        ++start;
    m_text.erase(0, start);
}

wxCharBuffer String::toUTF8() const {
    std::string const utf8 = encode(m_text);
    wxCharBuffer buffer(utf8.size());
    std::copy(utf8.begin(), utf8.end(), buffer.data());
    return buffer;
}

std::string String::toStdString() const {
    return encode(m_text);
}

void String::wipe() {
    // The text is stored as wide characters that this object alone owns.
    wchar_t const* const characters = m_text.wc_str();
    initMemory(const_cast<wchar_t*>(characters), 0, m_text.length() * sizeof(wchar_t));
    m_text.clear();
}

String operator+(String const& left, String const& right) {
    return String(left.wx() + right.wx());
}

String operator+(String const& left, char const* right) {
    return left + String(right);
}

String operator+(char const* left, String const& right) {
    return String(left) + right;
}

std::ostream& operator<<(std::ostream& stream, String const& text) {
    return stream << text.toStdString();
}

String toString(int value) {
    return fromAscii(std::to_string(value));
}

String toString(unsigned int value) {
    return fromAscii(std::to_string(value));
}

String toString(long value) {
    return fromAscii(std::to_string(value));
}

String toString(unsigned long value) {
    return fromAscii(std::to_string(value));
}

String toString(long long value) {
    return fromAscii(std::to_string(value));
}

String toString(unsigned long long value) {
    return fromAscii(std::to_string(value));
}

String toString(bool value) {
    return value ? "true" : "false";
}

String toHexString(unsigned int value) {
    return wxString::Format("%x", value);
}

} // namespace yx
