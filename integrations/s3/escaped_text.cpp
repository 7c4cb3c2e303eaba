#include "integrations/s3/escaped_text.h"

#include <algorithm>

namespace kelm::s3 {

namespace {

constexpr unsigned kHexBase = 16;
constexpr char kUpperDigits[] = "0123456789ABCDEF";
constexpr char kLowerDigits[] = "0123456789abcdef";

bool isUnreserved(char character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z') ||
           (character >= '0' && character <= '9') || character == '-' || character == '.' ||
           character == '_' || character == '~';
}

int digitValue(char character) {
    if (character >= '0' && character <= '9')
        return character - '0';
    constexpr int kTen = 10;
    if (character >= 'a' && character <= 'f')
        return character - 'a' + kTen;
    if (character >= 'A' && character <= 'F')
        return character - 'A' + kTen;
    return -1;
}

} // namespace

std::string escape(std::string_view bytes, bool keepsSlashes) {
    std::string text;
    for (char const character : bytes) {
        if (isUnreserved(character) || (keepsSlashes && character == '/')) {
            text += character;
            continue;
        }
        unsigned const byte = static_cast<unsigned char>(character);
        text += '%';
        text += kUpperDigits[byte / kHexBase];
        text += kUpperDigits[byte % kHexBase];
    }
    return text;
}

std::optional<std::string> unescape(std::string_view text, bool plusIsBlank) {
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '+' && plusIsBlank) {
            bytes += ' ';
        } else if (text[i] != '%') {
            bytes += text[i];
        } else {
            int const high = i + 2 < text.size() ? digitValue(text[i + 1]) : -1;
            int const low = i + 2 < text.size() ? digitValue(text[i + 2]) : -1;
            if (high < 0 || low < 0)
                return std::nullopt;
            int const byte = high * static_cast<int>(kHexBase) + low;
            bytes += static_cast<char>(byte);
            i += 2;
        }
    }
    return bytes;
}

std::string toHex(std::string_view bytes) {
    std::string text;
    for (char const character : bytes) {
        unsigned const byte = static_cast<unsigned char>(character);
        text += kLowerDigits[byte / kHexBase];
        text += kLowerDigits[byte % kHexBase];
    }
    return text;
}

std::string toLowerCase(std::string text) {
    std::ranges::transform(text, text.begin(), [](char character) {
        return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a')
                                                    : character;
    });
    return text;
}

std::string trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n";
    std::size_t const begin = text.find_first_not_of(kBlanks);
    if (begin == std::string_view::npos)
        return {};
    return std::string(text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1));
}

} // namespace kelm::s3
