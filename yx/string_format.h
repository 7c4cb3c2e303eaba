#pragma once

#include "yx/string.h"

namespace yx {

/// What formats have in common: the text so far.
class YX_API CStringFormatBase {
protected:
    /// `format` has the places still to be filled.
    explicit CStringFormatBase(String const& format);

    /// Replaces the next integer place of the format, such as "%d" or "%05d", by `value`. A width
    /// is 999 at most. Throws `CError` if no place is left: "Too many values for the format: '" and
    /// the text so far "'".
    void insertValue(__int64 value);

    /// The format with the places filled so far.
    String m_text;

private:
    std::size_t m_nextPos = 0;
};

/// Fills the integer places of a format: `String name = CStringFormat("%05d") << 7;`.
/// "%%" stands for a percent sign.
class YX_API CStringFormat : public CStringFormatBase {
public:
    /// `format` has integer places such as "%d" or "%05d".
    explicit CStringFormat(String const& format);

    /// Fills the next place. Throws `CError` if none is left.
    CStringFormat& operator<<(__int64 value);

    /// The text with the values given so far.
    operator String() const;
};

} // namespace yx
