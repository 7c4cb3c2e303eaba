#pragma once

#include <optional>

#include "kelm/format/internal/text_view.h"
#include "yx/error.h"
#include "yx/number.h"

namespace kelm::detail {

// RW 4192256 SPARSE "disk-s001.vmdk"
// RW 4192256 FLAT "disk-flat.vmdk" 128
//
// access, size in sectors, type, file name in double quotes, offset if there is one. Only a blank
// separates.

constexpr __int64 kNoOffset = -1;

template <class Char>
struct ExtentLine {
    View<Char> access;
    __int64 sizeSectors = 0;
    View<Char> type;
    View<Char> filename;
    __int64 offset = kNoOffset;
};

/// Cuts `text` at the first `separator`: returns what stands before it and leaves what stands
/// behind it, without the white space at its left end. False if there is no separator.
template <class Char>
bool cutAt(char separator, View<Char>& text, View<Char>& head) {
    size_t const end = text.find(Char(separator));
    if (end == View<Char>::npos)
        return false;
    head = text.substr(0, end);
    text = trimmedLeft(text.substr(end + 1));
    return true;
}

template <class Char>
bool isSign(Char character) {
    return character == Char('+') || character == Char('-');
}

/// A sign, if there is one, and digits.
template <class Char>
bool isNumber(View<Char> text) {
    if (!text.empty() && isSign(text.front()))
        text.remove_prefix(1);
    for (Char const character : text) {
        if (character < Char('0') || character > Char('9'))
            return false;
    }
    return !text.empty();
}

/// False if `text` is no number of 64 bits.
template <class Char>
bool tryParseNumber(View<Char> text, __int64& number) {
    // So many digits are a number of 64 bits, whatever they are.
    constexpr std::size_t kMaxShortDigits = 18;

    // Words are separated from numbers before they cost an exception each: a text may hold hundreds
    // of thousands of lines.
    if (!isNumber(text))
        return false;
    if (!isSign(text.front()) && text.size() <= kMaxShortDigits) {
        number = 0;
        for (Char const digit : text)
            number = 10 * number + (digit - Char('0'));
        return true;
    }
    try {
        number = yx::parseInt64(toString(text), false);
        return true;
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

/// Nothing if the line is no extent line.
template <class Char>
std::optional<ExtentLine<Char>> tryParseExtentLine(View<Char> line) {
    ExtentLine<Char> parsed;
    View<Char> size;
    if (!cutAt(' ', line, parsed.access) || !cutAt(' ', line, size) ||
        !cutAt(' ', line, parsed.type))
        return std::nullopt;
    if (!line.starts_with(Char('"')))
        return std::nullopt;
    line.remove_prefix(1);
    if (!cutAt('"', line, parsed.filename))
        return std::nullopt;
    View<Char> const offset = trimmed(line);
    if (!tryParseNumber(size, parsed.sizeSectors))
        return std::nullopt;
    if (!offset.empty() && !tryParseNumber(offset, parsed.offset))
        return std::nullopt;
    return parsed;
}

} // namespace kelm::detail
