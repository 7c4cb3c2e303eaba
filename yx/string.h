#pragma once

#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <wx/buffer.h>
#include <wx/string.h>

#include "yx/base.h"

namespace yx {

/// Text: a reference-counted object that carries a `wxString`, on which callers may work directly.
/// Usable as a value, as a key of ordered and hashed maps, and in test output.
class YX_API String : public CBase {
public:
    /// The empty text.
    String() = default;

    /// `text` is ASCII or UTF-8; bytes that are neither are taken as Latin-1. Null is empty.
    String(char const* text);
    String(wchar_t const* text);
    String(wxString const& text);
    String(String const&) = default;

    /// Take the text over; what it is taken from is empty then.
    String(wxString&& text) noexcept { take(text); }
    String(String&& other) noexcept { take(other.m_text); }

    /// Text from UTF-8 bytes; bytes that are no UTF-8 are taken as Latin-1.
    static String fromUTF8(std::string_view utf8);

    /// Text from UTF-8 bytes; absent if the bytes are no UTF-8. Sequences that are longer than they
    /// need to be, surrogates and numbers above U+10FFFF are none.
    static std::optional<String> tryFromUTF8(std::string_view utf8);

    /// As the constructors take them.
    String& operator=(char const* text);
    String& operator=(wxString const& text);
    String& operator=(String const&) = default;

    /// Takes the text over.
    String& operator=(String&& other) noexcept {
        if (this != &other)
            take(other.m_text);
        return *this;
    }

    /// Appends.
    String& operator+=(String const& text);
    String& operator+=(char const* text);
    String& operator+=(wchar_t character);

    /// Compare the whole text, case-sensitively.
    bool operator==(char const* text) const;
    bool operator!=(char const* text) const;
    bool operator==(String const& other) const { return m_text == other.m_text; }
    bool operator!=(String const& other) const { return m_text != other.m_text; }

    /// Order of code points, the same on every system.
    bool operator<(String const& other) const { return m_text.compare(other.m_text) < 0; }

    /// Length in characters.
    int getLength() const { return static_cast<int>(m_text.length()); }

    /// Whether there is no character.
    bool isEmpty() const { return m_text.empty(); }

    /// Removes blank, tab, carriage return, line feed, vertical tab and form feed from both ends.
    void trim();

    /// The same for the left end alone.
    void trimLeft();

    /// The UTF-8 bytes, ended by a zero byte. U+FFFD stands for what is no Unicode character, such
    /// as a surrogate.
    wxCharBuffer toUTF8() const;
    std::string toStdString() const;

    /// Overwrites the characters with zeros and leaves the empty text, for texts that are secret.
    void wipe();

    /// The text inside, to work on directly.
    wxString const& wx() const { return m_text; }
    wxString& wx() { return m_text; }

private:
    /// What a `wxString` keeps its characters in. It has no move of its own.
    static std::wstring& charactersOf(wxString& text) {
        static_assert(std::is_same_v<decltype(text.ToStdWstring()), std::wstring const&>);
        return const_cast<std::wstring&>(text.ToStdWstring());
    }

    void take(wxString& text) noexcept {
        charactersOf(m_text) = std::move(charactersOf(text));
        charactersOf(text).clear();
    }

    wxString m_text;
};

YX_API String operator+(String const& left, String const& right);
YX_API String operator+(String const& left, char const* right);
YX_API String operator+(char const* left, String const& right);

/// Prints UTF-8.
YX_API std::ostream& operator<<(std::ostream& stream, String const& text);

/// Numbers as decimal text.
YX_API String toString(int value);
YX_API String toString(unsigned int value);
YX_API String toString(long value);
YX_API String toString(unsigned long value);
YX_API String toString(long long value);
YX_API String toString(unsigned long long value);

/// "true" or "false".
YX_API String toString(bool value);

/// Lower-case hexadecimal without prefix or leading zeros, as content IDs are written.
YX_API String toHexString(unsigned int value);

} // namespace yx

template <>
struct std::hash<yx::String> {
    std::size_t operator()(yx::String const& text) const noexcept {
        return std::hash<std::wstring_view>()(
            std::wstring_view(text.wx().wc_str(), text.wx().length()));
    }
};
