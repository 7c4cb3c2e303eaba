#include "kelm/format/extent_info.h"

#include "kelm/format/internal/extent_line.h"

namespace kelm {

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
    return tryMake(line);
}

template <class Char>
yx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryMake(std::basic_string_view<Char> line) {
    auto const parsed = detail::tryParseExtentLine(line);
    if (!parsed)
        return {};
    return yx::makeObject<CVMDKExtentInfo>(detail::toString(parsed->access), parsed->sizeSectors,
                                           detail::toString(parsed->type),
                                           detail::toString(parsed->filename), parsed->offset);
}

template yx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryMake(std::string_view line);
template yx::P<CVMDKExtentInfo> CVMDKExtentInfo::tryMake(std::wstring_view line);

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
    if (m_offset != detail::kNoOffset) {
        text += L' ';
        text += yx::toString(m_offset);
    }
    return text;
}

yx::P<CVMDKDescriptorEntry> CVMDKExtentInfo::cloneDescriptorEntry() const {
    return yx::makeObject<CVMDKExtentInfo>(*this);
}

} // namespace kelm
