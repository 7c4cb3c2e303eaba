#include "yx/number.h"

#include <limits>
#include <string>

#include "yx/error.h"

namespace yx {

namespace {

constexpr int kNoDigit = -1;

[[noreturn]] void throwInvalid(char const* what, String const& text) {
    throw CError(String(what) + ": '" + text + "'", "", -1, CProps(), nullptr);
}

__int64 parseInteger(String const& text, unsigned base, bool wrapUnsigned) {
    constexpr unsigned long long kMaxPositive = std::numeric_limits<__int64>::max();
    constexpr unsigned long long kMaxUnsigned = std::numeric_limits<unsigned long long>::max();

    std::string const utf8 = text.toStdString();
    std::size_t const signLength = !utf8.empty() && (utf8[0] == '-' || utf8[0] == '+') ? 1 : 0;
    bool const negative = signLength > 0 && utf8[0] == '-';
    unsigned long long const limit = negative       ? kMaxPositive + 1
                                     : wrapUnsigned ? kMaxUnsigned
                                                    : kMaxPositive;
    if (utf8.size() == signLength)
        throwInvalid("Invalid number", text);

    unsigned long long value = 0;
    for (std::size_t i = signLength; i < utf8.size(); ++i) {
        int const digit = hexDigitValue(utf8[i]);
        if (digit == kNoDigit || digit >= static_cast<int>(base))
            throwInvalid("Invalid number", text);
        auto const addend = static_cast<unsigned long long>(digit);
        if (value > (limit - addend) / base)
            throwInvalid("Invalid number", text);
        value = value * base + addend;
    }
    return static_cast<__int64>(negative ? 0 - value : value);
}

} // namespace

int hexDigitValue(char character) {
    if (character >= '0' && character <= '9')
        return character - '0';
    if (character >= 'a' && character <= 'f')
        return character - 'a' + 10;
    if (character >= 'A' && character <= 'F')
        return character - 'A' + 10;
    return kNoDigit;
}

__int64 parseInt64(String const& text, bool wrapUnsigned) {
    return parseInteger(text, 10, wrapUnsigned);
}

__int64 parseHexInt64(String const& text, bool wrapUnsigned) {
    return parseInteger(text, 16, wrapUnsigned);
}

bool parseBool(String const& text) {
    if (text == "1" || text.wx().IsSameAs(L"true", false))
        return true;
    if (text == "0" || text.wx().IsSameAs(L"false", false))
        return false;
    throwInvalid("Invalid boolean value", text);
}

String hexEncode(TBuffer<unsigned char> const& data) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(static_cast<std::size_t>(data.getUsed()) * 2);
    for (int i = 0; i < data.getUsed(); ++i) {
        unsigned const byte = data.getData()[i];
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return String::fromUTF8(text);
}

void hexDecode(String const& text, TBuffer<unsigned char>& data) {
    std::string const digits = text.toStdString();
    if (digits.size() % 2 != 0 || digits.size() / 2 > std::numeric_limits<int>::max())
        throwInvalid("Invalid hexadecimal data", text);
    for (char const digit : digits) {
        if (hexDigitValue(digit) == kNoDigit)
            throwInvalid("Invalid hexadecimal data", text);
    }
    data.setUsed(static_cast<int>(digits.size() / 2));
    for (std::size_t i = 0; i < digits.size(); i += 2) {
        data.getData()[i / 2] = static_cast<unsigned char>(hexDigitValue(digits[i]) * 16 +
                                                           hexDigitValue(digits[i + 1]));
    }
}

} // namespace yx
