#include "host/system/name_text.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstdio>
#include <iterator>

#include "yx/path_impl.h"

namespace kelm::host {

namespace {

/// The character that begins at a place in a text.
struct Character {
    /// How many bytes it has; 0 for a byte that begins no character of UTF-8.
    std::size_t sizeBytes = 0;
    unsigned int codePoint = 0;
};

/// The sequences that a range of first bytes begins. The range of the second byte excludes overlong
/// forms, surrogates, and code points above U+10FFFF.
struct Sequence {
    unsigned char first;
    unsigned char last;
    std::size_t sizeBytes;
    unsigned char minSecond;
    unsigned char maxSecond;
};

constexpr Sequence kSequences[] = {
    {0x00, 0x7F, 1, 0, 0},       {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F},
};

unsigned char byteAt(std::string const& text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0) == 0x80;
}

Character characterAt(std::string const& text, std::size_t at) {
    unsigned char const first = byteAt(text, at);
    auto const* const sequence =
        std::find_if(std::begin(kSequences), std::end(kSequences),
                     [first](Sequence const& s) { return first >= s.first && first <= s.last; });
    if (sequence == std::end(kSequences) || sequence->sizeBytes > text.size() - at)
        return {};
    if (sequence->sizeBytes == 1)
        return {1, first};
    if (byteAt(text, at + 1) < sequence->minSecond || byteAt(text, at + 1) > sequence->maxSecond)
        return {};
    unsigned int codePoint = first & (0xFFu >> (sequence->sizeBytes + 1));
    for (std::size_t i = 1; i < sequence->sizeBytes; ++i) {
        unsigned char const byte = byteAt(text, at + i);
        if (!isContinuation(byte))
            return {};
        codePoint = codePoint << 6 | (byte & 0x3Fu);
    }
    return {sequence->sizeBytes, codePoint};
}

/// Control characters, line and paragraph separators, and marks that change the direction.
bool isUnsafe(unsigned int codePoint) {
    return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x61C ||
           codePoint == 0x200E || codePoint == 0x200F ||
           (codePoint >= 0x2028 && codePoint <= 0x202E) ||
           (codePoint >= 0x2066 && codePoint <= 0x2069);
}

std::string formatCode(char const* format, unsigned int code) {
    std::array<char, 16> text{};
    std::snprintf(text.data(), text.size(), format, code);
    return text.data();
}

std::string escapeCodePoint(unsigned int codePoint) {
    switch (codePoint) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return formatCode(codePoint < 0x80 ? "\\x%02x" : "\\u{%x}", codePoint);
    }
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

/// The digits at the start of a text, as many as there are.
std::string_view takeDigits(std::string_view& text) {
    std::size_t const count = static_cast<std::size_t>(
        std::find_if_not(text.begin(), text.end(), isDigit) - text.begin());
    std::string_view const digits = text.substr(0, count);
    text.remove_prefix(count);
    return digits;
}

std::size_t countZeros(std::string_view digits) {
    return std::min(digits.find_first_not_of('0'), digits.size());
}

} // namespace

bool precedesByNumbers(std::string_view name, std::string_view other) {
    while (!name.empty() && !other.empty()) {
        if (!isDigit(name.front()) || !isDigit(other.front())) {
            if (name.front() != other.front())
                return static_cast<unsigned char>(name.front()) <
                       static_cast<unsigned char>(other.front());
            name.remove_prefix(1);
            other.remove_prefix(1);
            continue;
        }
        std::string_view const number = takeDigits(name);
        std::string_view const otherNumber = takeDigits(other);
        std::string_view const value = number.substr(countZeros(number));
        std::string_view const otherValue = otherNumber.substr(countZeros(otherNumber));
        if (value.size() != otherValue.size())
            return value.size() < otherValue.size();
        if (value != otherValue)
            return value < otherValue;
        if (number.size() != otherNumber.size())
            return number.size() > otherNumber.size();
    }
    return name.empty() && !other.empty();
}

std::string displayName(yx::CURI const& uri) {
    return uri.getScheme() == "file" ? yx::toNativePath(uri).toStdString()
                                     : uri.toString(true).toStdString();
}

std::string printable(std::string const& text) {
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        Character const character = characterAt(text, at);
        if (character.sizeBytes == 0)
            result += formatCode("\\x%02x", byteAt(text, at));
        else if (isUnsafe(character.codePoint))
            result += escapeCodePoint(character.codePoint);
        else
            result.append(text, at, character.sizeBytes);
        at += std::max<std::size_t>(1, character.sizeBytes);
    }
    return result;
}

std::string printableJSON(std::string const& document) {
    std::string result;
    for (std::size_t at = 0; at < document.size();) {
        Character const character = characterAt(document, at);
        assert(character.sizeBytes > 0);
        // The document's own escapes cover the ASCII control characters within strings, all but
        // DEL. A line end therefore stands between values.
        if (character.codePoint != '\n' && isUnsafe(character.codePoint))
            result += formatCode("\\u%04x", character.codePoint);
        else
            result.append(document, at, std::max<std::size_t>(1, character.sizeBytes));
        at += std::max<std::size_t>(1, character.sizeBytes);
    }
    return result;
}

} // namespace kelm::host
