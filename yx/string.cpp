#include "yx/string.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <memory>
#include <new>
#include <ostream>
#include <utility>

#include "yx/internal/ascii.h"
#include "yx/memory.h"

namespace yx {

namespace {

using detail::isAscii;

/// Stands for what is no Unicode character.
constexpr char32_t kReplacement = 0xfffd;

/// One wide character for each byte, as ASCII and Latin-1 have it.
///
/// The conversions of wxWidgets are not used in this file: where memory runs out, some of them end
/// the program, and others give an empty text.
wxString widenBytes(std::string_view bytes) {
    auto const* const begin = reinterpret_cast<unsigned char const*>(bytes.data());
    wxString text;
    // Given to the text without the copy that its constructors make.
    const_cast<std::wstring&>(text.ToStdWstring()) = std::wstring(begin, begin + bytes.size());
    return text;
}

/// The form of UTF-8 sequences that begin with a certain byte.
struct SequenceForm {
    std::size_t sizeBytes; ///< 0 for a byte that begins none
    char32_t firstBits;    ///< those of the code point in the first byte
    char32_t lowest;       ///< the first code point that needs so many bytes
};

SequenceForm getSequenceForm(unsigned char first) {
    if (first < 0x80)
        return {1, first, 0};
    if (first >= 0xc2 && first < 0xe0)
        return {2, first & 0x1fU, 0x80};
    if (first >= 0xe0 && first < 0xf0)
        return {3, first & 0x0fU, 0x800};
    if (first >= 0xf0 && first < 0xf5)
        return {4, first & 0x07U, 0x10000};
    return {0, 0, 0};
}

bool isUnicode(char32_t codePoint) {
    bool const isSurrogate = codePoint >= 0xd800 && codePoint < 0xe000;
    return codePoint <= 0x10ffff && !isSurrogate;
}

/// Takes the first code point off `utf8`. Absent if there is none: a sequence that is cut short or
/// longer than it needs to be, a surrogate, a number above the last code point.
std::optional<char32_t> takeCodePoint(std::string_view& utf8) {
    SequenceForm const form = getSequenceForm(static_cast<unsigned char>(utf8.front()));
    if (form.sizeBytes == 0 || form.sizeBytes > utf8.size())
        return std::nullopt;
    char32_t codePoint = form.firstBits;
    for (char const byte : utf8.substr(1, form.sizeBytes - 1)) {
        auto const bits = static_cast<unsigned char>(byte);
        if ((bits & 0xc0U) != 0x80)
            return std::nullopt;
        codePoint = codePoint << 6 | (bits & 0x3fU);
    }
    if (codePoint < form.lowest || !isUnicode(codePoint))
        return std::nullopt;
    utf8.remove_prefix(form.sizeBytes);
    return codePoint;
}

static_assert(sizeof(wchar_t) == sizeof(char32_t), "each wide character is a code point");

std::optional<wxString> tryDecode(std::string_view utf8) {
    if (isAscii(utf8))
        return widenBytes(utf8);
    std::wstring text;
    text.reserve(utf8.size());
    while (!utf8.empty()) {
        std::optional<char32_t> const codePoint = takeCodePoint(utf8);
        if (!codePoint)
            return std::nullopt;
        text += static_cast<wchar_t>(*codePoint);
    }
    return wxString(text);
}

wxString decode(std::string_view utf8) {
    // Mostly.
    if (isAscii(utf8))
        return widenBytes(utf8);
    std::optional<wxString> const text = tryDecode(utf8);
    return text ? *text : widenBytes(utf8);
}

wxString decode(char const* text) {
    return text ? decode(std::string_view(text)) : wxString();
}

void appendUTF8(std::string& target, char32_t codePoint) {
    auto const append = [&target](char32_t byte) { target += static_cast<char>(byte); };
    if (codePoint < 0x80) {
        append(codePoint);
        return;
    }
    if (codePoint < 0x800) {
        append(0xc0 | codePoint >> 6);
    } else {
        if (codePoint < 0x10000) {
            append(0xe0 | codePoint >> 12);
        } else {
            append(0xf0 | codePoint >> 18);
            append(0x80 | (codePoint >> 12 & 0x3f));
        }
        append(0x80 | (codePoint >> 6 & 0x3f));
    }
    append(0x80 | (codePoint & 0x3f));
}

std::string encode(wxString const& text) {
    std::wstring_view const characters(text.wc_str(), text.length());
    if (isAscii(characters)) {
        std::string ascii(characters.size(), '\0');
        std::transform(characters.begin(), characters.end(), ascii.begin(),
                       [](wchar_t character) { return static_cast<char>(character); });
        return ascii;
    }
    std::string utf8;
    utf8.reserve(characters.size());
    for (wchar_t const character : characters) {
        auto const codePoint = static_cast<char32_t>(character);
        appendUTF8(utf8, isUnicode(codePoint) ? codePoint : kReplacement);
    }
    return utf8;
}

bool isSpace(wxUniChar character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

/// Room for any number of 64 bits, decimal with its sign.
constexpr std::size_t kMaxNumberLength = 20;

template <class Number>
String formatNumber(Number value, int base = 10) {
    std::array<char, kMaxNumberLength> digits;
    char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), value, base).ptr;
    return widenBytes({digits.data(), static_cast<std::size_t>(end - digits.data())});
}

} // namespace

String::String(char const* text) : m_text(decode(text)) {}

String::String(wchar_t const* text) : m_text(text ? wxString(text) : wxString()) {}

String::String(wxString const& text) : m_text(text) {}

String String::fromUTF8(std::string_view utf8) {
    return String(decode(utf8));
}

std::optional<String> String::tryFromUTF8(std::string_view utf8) {
    std::optional<wxString> text = tryDecode(utf8);
    return text ? std::optional<String>(std::move(*text)) : std::nullopt;
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
    std::string_view const bytes = text ? std::string_view(text) : std::string_view();
    if (!isAscii(bytes))
        return m_text == decode(bytes);
    std::wstring_view const characters(m_text.wc_str(), m_text.length());
    return std::equal(characters.begin(), characters.end(), bytes.begin(), bytes.end(),
                      [](wchar_t left, char right) { return left == static_cast<wchar_t>(right); });
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
    // A buffer that allocates its own text would lose it if the rest of the buffer found no memory.
    std::unique_ptr<char, decltype(&std::free)> text(
        static_cast<char*>(std::malloc(utf8.size() + 1)), &std::free);
    if (!text)
        throw std::bad_alloc();
    std::copy_n(utf8.c_str(), utf8.size() + 1, text.get());
    wxScopedCharBuffer const buffer = wxScopedCharBuffer::CreateOwned(text.get(), utf8.size());
    static_cast<void>(text.release());
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
    return formatNumber(value);
}

String toString(unsigned int value) {
    return formatNumber(value);
}

String toString(long value) {
    return formatNumber(value);
}

String toString(unsigned long value) {
    return formatNumber(value);
}

String toString(long long value) {
    return formatNumber(value);
}

String toString(unsigned long long value) {
    return formatNumber(value);
}

String toString(bool value) {
    return value ? "true" : "false";
}

String toHexString(unsigned int value) {
    return formatNumber(value, 16);
}

} // namespace yx
