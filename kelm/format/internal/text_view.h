#pragma once

#include <string_view>

#include "yx/string.h"

namespace kelm::detail {

/// Parts of a text that stays where it is, in bytes or in characters.
template <class Char>
using View = std::basic_string_view<Char>;

/// What `yx::String::trim` removes.
template <class Char>
bool isWhiteSpace(Char character) {
    return character == ' ' || (character >= '\t' && character <= '\r');
}

template <class Char>
View<Char> trimmedLeft(View<Char> text) {
    while (!text.empty() && isWhiteSpace(text.front()))
        text.remove_prefix(1);
    return text;
}

template <class Char>
View<Char> trimmed(View<Char> text) {
    while (!text.empty() && isWhiteSpace(text.back()))
        text.remove_suffix(1);
    return trimmedLeft(text);
}

inline yx::String toString(std::wstring_view text) {
    return wxString(text.data(), text.size());
}

/// Of ASCII.
inline yx::String toString(std::string_view text) {
    return yx::String::fromUTF8(text);
}

} // namespace kelm::detail
