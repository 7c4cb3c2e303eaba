#include "yx/string_format.h"

#include <algorithm>
#include <string>

#include "yx/error.h"

namespace yx {

namespace {

/// What a format asks for stays small, wherever the format comes from.
constexpr size_t kMaxWidth = 999;

} // namespace

CStringFormatBase::CStringFormatBase(String const& format) : m_text(format) {}

void CStringFormatBase::insertValue(__int64 value) {
    wxString& text = m_text.wx();
    auto const isDigitAt = [&text](size_t position) {
        return position < text.length() && text[position] >= '0' && text[position] <= '9';
    };
    for (size_t start = text.find('%', m_nextPos); start != wxString::npos;
         start = text.find('%', m_nextPos)) {
        size_t end = start + 1;
        bool const zeroFilled = end < text.length() && text[end] == '0';
        size_t width = 0;
        for (; isDigitAt(end) && width <= kMaxWidth / 10; ++end)
            width = width * 10 + (text[end].GetValue() - '0');
        if (end < text.length() && text[end] == 'd') {
            std::string digits = std::to_string(value);
            size_t const fill = width > digits.size() ? width - digits.size() : 0;
            // Zeros go behind the sign, blanks before it.
            digits.insert(zeroFilled && value < 0 ? 1 : 0, fill, zeroFilled ? '0' : ' ');
            text.replace(start, end + 1 - start, String::fromUTF8(digits).wx());
            m_nextPos = start + digits.size();
            return;
        }
        // "%%" and anything else that is no integer place stays as it is.
        m_nextPos = std::min(start + 2, text.length());
    }
    throw CError("Too many values for the format: '" + m_text + "'", "", -1, CProps(), nullptr);
}

CStringFormat::CStringFormat(String const& format) : CStringFormatBase(format) {}

CStringFormat& CStringFormat::operator<<(__int64 value) {
    insertValue(value);
    return *this;
}

CStringFormat::operator String() const {
    String text = m_text;
    text.wx().Replace(L"%%", L"%");
    return text;
}

} // namespace yx
