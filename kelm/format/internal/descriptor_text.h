#pragma once

#include <algorithm>
#include <optional>

#include "kelm/format/internal/text_view.h"
#include "yx/buffer.h"

namespace kelm::detail {

// The text, line by line:
//
//   # comment                              kept verbatim
//   key=value   key="value"                what stands before and behind the first "=", trimmed; a
//                                          key with a blank in it makes no such line
//   ddb.key = "value"                      the same; keys of this prefix are written with blanks
//   RW 4192256 SPARSE "disk-s001.vmdk"     extent line, see CVMDKExtentInfo
//   anything else                          kept verbatim
//
// In a file, zeros behind the text fill its area; the first of them ends the text.

constexpr char kEncodingKey[] = "encoding";

/// Compares as if both were put in lower case. Looking at the length and at the letters of ASCII
/// first spares the comparison for nearly all keys.
inline bool isSameKey(wxString const& left, wxString const& right) {
    constexpr wchar_t kBitOfCase = 0x20;
    std::wstring_view const leftKey(left.wc_str(), left.length());
    std::wstring_view const rightKey(right.wc_str(), right.length());
    if (leftKey.size() != rightKey.size())
        return false;
    bool isEqual = true;
    for (size_t i = 0; i < leftKey.size(); ++i) {
        if (leftKey[i] == rightKey[i])
            continue;
        bool const isAscii = leftKey[i] < 0x80 && rightKey[i] < 0x80;
        if (isAscii && (leftKey[i] | kBitOfCase) != (rightKey[i] | kBitOfCase))
            return false;
        isEqual = false;
    }
    return isEqual || left.IsSameAs(right, false);
}

template <class Char>
struct NameValue {
    View<Char> name;
    View<Char> value;
    bool quoted;
};

template <class Char>
std::optional<NameValue<Char>> tryParseNameValue(View<Char> line) {
    size_t const separator = line.find(Char('='));
    if (separator == View<Char>::npos)
        return std::nullopt;
    View<Char> const name = trimmed(line.substr(0, separator));
    View<Char> const value = trimmed(line.substr(separator + 1));
    // Only a blank is looked for: it sends an extent line with "=" in its file name on.
    if (name.empty() || name.find(Char(' ')) != View<Char>::npos)
        return std::nullopt;
    if (!value.starts_with(Char('"')) || !value.ends_with(Char('"')))
        return NameValue<Char>{name, value, false};
    // One quote alone both starts and ends its value, which is then empty.
    size_t const length = std::max<size_t>(value.size(), 2) - 2;
    return NameValue<Char>{name, value.substr(1, length), true};
}

/// Calls `visit` with each line, which may end the walk by answering false. Lines end at line feeds
/// alone; what stands behind the last one is a line too, be it empty. An empty text has no line.
template <class Char, class Visitor>
void forEachLine(View<Char> text, Visitor visit) {
    while (!text.empty()) {
        size_t const end = text.find(Char('\n'));
        if (!visit(text.substr(0, end)) || end == View<Char>::npos)
            return;
        text.remove_prefix(end + 1);
        if (text.empty())
            visit(text);
    }
}

template <class Char>
bool isComment(View<Char> line) {
    return line.starts_with(Char('#'));
}

/// The characters of a descriptor's bytes, up to the first zero. They are in the encoding that the
/// text itself names, which is UTF-8 if it names none; what is no UTF-8 then makes an empty text.
wxString decodeDescriptor(yx::TBuffer<unsigned char> const& bytes);

/// The same where every byte is the character, as it is for ASCII in all encodings that are known;
/// absent otherwise.
std::optional<std::string_view> tryGetAsciiDescriptor(yx::TBuffer<unsigned char> const& bytes);

} // namespace kelm::detail
