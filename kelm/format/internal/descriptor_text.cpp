#include "kelm/format/internal/descriptor_text.h"

#include <algorithm>
#include <new>
#include <string>

#include "yx/error.h"
#include "yx/internal/ascii.h"
#include "yx/log.h"

namespace kelm::detail {

namespace {

/// Without a conversion of wxWidgets, which gives an empty text where memory runs out.
wxString decodeLatin1(std::string_view bytes) {
    std::wstring text(bytes.size(), L'\0');
    std::transform(bytes.begin(), bytes.end(), text.begin(),
                   [](char byte) { return static_cast<unsigned char>(byte); });
    return text;
}

/// The value of the "encoding" key, empty if there is none. The bytes are taken as Latin-1, so that
/// the line is found whatever the encoding is.
yx::String findEncoding(std::string_view bytes) {
    yx::String const name(kEncodingKey);
    wxString const& key = name.wx();
    yx::String encoding;
    forEachLine(bytes, [&](std::string_view line) {
        if (isComment(line))
            return true;
        auto const parsed = tryParseNameValue(line);
        if (!parsed || parsed->name.size() != key.length() ||
            !isSameKey(decodeLatin1(parsed->name), key))
            return true;
        encoding = decodeLatin1(parsed->value);
        return false;
    });
    return encoding;
}

enum class Encoding { UTF8, Latin1, Unknown };

Encoding recognize(yx::String const& encoding) {
    wxString reduced = encoding.wx().Lower();
    reduced.Replace(L"_", L"");
    reduced.Replace(L"-", L"");
    if (reduced.empty() || reduced == L"utf8")
        return Encoding::UTF8;
    return reduced == L"latin1" || reduced == L"iso88591" ? Encoding::Latin1 : Encoding::Unknown;
}

wxString decodeAs(yx::String const& encoding, std::string_view bytes) {
    Encoding const known = recognize(encoding);
    if (known == Encoding::UTF8)
        return yx::String::tryFromUTF8(bytes).value_or(yx::String()).wx();
    if (known == Encoding::Unknown) {
        yx::logWarning("Unknown VMDK descriptor encoding '" + encoding +
                       "'. Using Latin-1 instead.");
    }
    return decodeLatin1(bytes);
}

wxString decodeText(std::string_view bytes) {
    yx::String const encoding = findEncoding(bytes);
    try {
        return decodeAs(encoding, bytes);
    } catch (std::bad_alloc const&) {
        // Says nothing about the encoding, and a later store would write what another one made of
        // the text.
        throw;
    } catch (std::exception const& error) {
        // Deliberate: the parenthesis stays open; these are the words that logs are searched for.
        yx::logWarning(error,
                       "Ignoring VMDK descriptor decoding error (encoding: '" + encoding +
                           "'. Using Latin-1 encoding instead.",
                       "");
        return decodeLatin1(bytes);
    }
}

/// The bytes before the first zero byte.
std::string_view textOf(yx::TBuffer<unsigned char> const& buffer) {
    std::string_view const bytes(reinterpret_cast<char const*>(buffer.getData()),
                                 static_cast<size_t>(buffer.getUsed()));
    return bytes.substr(0, bytes.find('\0'));
}

} // namespace

wxString decodeDescriptor(yx::TBuffer<unsigned char> const& bytes) {
    return decodeText(textOf(bytes));
}

std::optional<std::string_view> tryGetAsciiDescriptor(yx::TBuffer<unsigned char> const& bytes) {
    std::string_view const text = textOf(bytes);
    if (!yx::detail::isAscii(text) || recognize(findEncoding(text)) == Encoding::Unknown)
        return std::nullopt;
    return text;
}

} // namespace kelm::detail
