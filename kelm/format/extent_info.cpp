#include "kelm/format/extent_info.h"

#include "kelm/format/internal/text_view.h"
#include "yx/error.h"
#include "yx/number.h"

namespace kelm {

// RW 4192256 SPARSE "disk-s001.vmdk"
// RW 4192256 FLAT "disk-flat.vmdk" 128
//
// access, size in sectors, type, file name in double quotes, offset if there is one. Only a blank
// separates.

namespace {

using detail::trimmed;
using detail::trimmedLeft;

constexpr __int64 kNoOffset = -1;

/// Cuts `text` at the first `separator`: returns what stands before it and leaves what stands
/// behind it, without the white space at its left end. False if there is no separator.
bool cutAt(wchar_t separator, std::wstring_view& text, std::wstring_view& head) {
    size_t const end = text.find(separator);
    if (end == std::wstring_view::npos)
        return false;
    head = text.substr(0, end);
    text = trimmedLeft(text.substr(end + 1));
    return true;
}

/// A sign, if there is one, and digits.
bool isNumber(std::wstring_view text) {
    if (text.starts_with(L'+') || text.starts_with(L'-'))
        text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of(L"0123456789") == std::wstring_view::npos;
}

/// So many digits are a number of 64 bits, whatever they are.
constexpr std::size_t kMaxShortDigits = 18;

/// False if `text` is no number of 64 bits.
bool tryParseNumber(std::wstring_view text, __int64& number) {
    // Words are separated from numbers before they cost an exception each: a text may hold hundreds
    // of thousands of lines.
    if (!isNumber(text))
        return false;
    bool const hasSign = text.front() == '+' || text.front() == '-';
    if (!hasSign && text.size() <= kMaxShortDigits) {
        number = 0;
        for (wchar_t const digit : text)
            number = 10 * number + (digit - '0');
        return true;
    }
    try {
        number = yx::parseInt64(detail::toString(text), false);
        return true;
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

} // namespace

CVMDKExtentInfo::CVMDKExtentInfo(yx::String const& access, __int64 sizeSectors,
                                 yx::String const& type, yx::String const& filename, __int64 offset)
    : m_access(access),
      m_sizeSectors(sizeSectors),
      m_type(type),
      m_filename(filename),
      m_offset(offset) {}

yx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryParseDescriptorLine(yx::String const& line) {
    return tryParse(line.wx().ToStdWstring());
}

yx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryParse(std::wstring_view line) {
    std::wstring_view access;
    std::wstring_view size;
    std::wstring_view type;
    std::wstring_view filename;
    if (!cutAt(L' ', line, access) || !cutAt(L' ', line, size) || !cutAt(L' ', line, type))
        return {};
    if (!line.starts_with(L'"'))
        return {};
    line.remove_prefix(1);
    if (!cutAt(L'"', line, filename))
        return {};

    __int64 sizeSectors = 0;
    __int64 offset = kNoOffset;
    std::wstring_view const offsetText = trimmed(line);
    if (!tryParseNumber(size, sizeSectors))
        return {};
    if (!offsetText.empty() && !tryParseNumber(offsetText, offset))
        return {};
    return yx::makeObject<CVMDKExtentInfo>(detail::toString(access), sizeSectors,
                                           detail::toString(type), detail::toString(filename),
                                           offset);
}

yx::String CVMDKExtentInfo::toString() {
    yx::String text = m_access;
    text += L' ';
    text += yx::toString(m_sizeSectors);
    text += L' ';
    text += m_type;
    text += L' ';
    text += L'"';
    text += m_filename;
    text += L'"';
    if (m_offset != kNoOffset) {
        text += L' ';
        text += yx::toString(m_offset);
    }
    return text;
}

yx::P<CVMDKDescriptorEntry> CVMDKExtentInfo::cloneDescriptorEntry() const {
    return yx::makeObject<CVMDKExtentInfo>(*this);
}

} // namespace kelm
