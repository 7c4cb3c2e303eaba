#include "yx/internal/uri_escape.h"

#include "yx/number.h"

namespace yx::detail {

namespace {

bool isEscapeAt(std::string_view text, size_t position) {
    return text[position] == '%' && position + 2 < text.size() &&
           hexDigitValue(text[position + 1]) >= 0 && hexDigitValue(text[position + 2]) >= 0;
}

char escapedByteAt(std::string_view text, size_t position) {
    return static_cast<char>(hexDigitValue(text[position + 1]) * 16 +
                             hexDigitValue(text[position + 2]));
}

void appendEscaped(std::string& target, char character) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    auto const byte = static_cast<unsigned char>(character);
    target += '%';
    target += kDigits[byte >> 4];
    target += kDigits[byte & 15];
}

} // namespace

bool isAlpha(char character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

bool isOneOf(char character, std::string_view set) {
    return set.find(character) != std::string_view::npos;
}

bool isUnreserved(char character) {
    return isAlpha(character) || isDigit(character) || isOneOf(character, "-._~");
}

bool isAuthorityChar(char character) {
    return isUnreserved(character) || isOneOf(character, "!$&'()*+,;=");
}

bool isSegmentChar(char character) {
    return isAuthorityChar(character) || isOneOf(character, ":@");
}

bool isPathChar(char character) {
    return isSegmentChar(character) || character == '/';
}

bool isQueryChar(char character) {
    return isPathChar(character) || character == '?';
}

std::string toLowerAscii(std::string text) {
    for (char& character : text) {
        if (character >= 'A' && character <= 'Z')
            character = static_cast<char>(character - 'A' + 'a');
    }
    return text;
}

std::string toUpperAscii(std::string text) {
    for (char& character : text) {
        if (character >= 'a' && character <= 'z')
            character = static_cast<char>(character - 'a' + 'A');
    }
    return text;
}

std::string escape(std::string_view bytes, CharTest isAllowed) {
    std::string escaped;
    escaped.reserve(bytes.size());
    for (char const character : bytes) {
        if (isAllowed(character))
            escaped += character;
        else
            appendEscaped(escaped, character);
    }
    return escaped;
}

std::optional<std::string> completeEscapes(std::string_view text, CharTest isAllowed) {
    std::string escaped;
    escaped.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && !isEscapeAt(text, i))
            return std::nullopt;
        if (text[i] == '%' || isAllowed(text[i]))
            escaped += text[i];
        else
            appendEscaped(escaped, text[i]);
    }
    return escaped;
}

std::string unescape(std::string_view escaped) {
    if (escaped.find('%') == std::string_view::npos)
        return std::string(escaped);
    std::string bytes;
    bytes.reserve(escaped.size());
    for (size_t i = 0; i < escaped.size(); ++i) {
        if (isEscapeAt(escaped, i)) {
            bytes += escapedByteAt(escaped, i);
            i += 2;
        } else {
            bytes += escaped[i];
        }
    }
    return bytes;
}

std::string normalizeEscapes(std::string_view escaped, CharTest isUnescaped) {
    if (escaped.find('%') == std::string_view::npos)
        return std::string(escaped);
    std::string normalized;
    normalized.reserve(escaped.size());
    for (size_t i = 0; i < escaped.size(); ++i) {
        if (!isEscapeAt(escaped, i)) {
            normalized += escaped[i];
            continue;
        }
        char const character = escapedByteAt(escaped, i);
        if (isUnescaped(character))
            normalized += character;
        else
            appendEscaped(normalized, character);
        i += 2;
    }
    return normalized;
}

} // namespace yx::detail
