#include "kelm/format/internal/descriptor_text.h"

#include <algorithm>
#include <new>
#include <string>

#include "yx/error.h"
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

wxString decodeAs(yx::String const& encoding, std::string_view bytes) {
    wxString reduced = encoding.wx().Lower();
    reduced.Replace(L"_", L"");
    reduced.Replace(L"-", L"");
    if (reduced.empty() || reduced == L"utf8")
        return yx::String::tryFromUTF8(bytes).value_or(yx::String()).wx();
    if (reduced != L"latin1" && reduced != L"iso88591") {
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

} // namespace kelm::detail
