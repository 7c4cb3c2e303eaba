#include "yx/uri.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

#include "yx/error.h"
#include "yx/internal/stream_error.h"
#include "yx/internal/uri_escape.h"
#include "yx/internal/uri_path.h"

namespace yx {

using namespace detail;

namespace {

constexpr __int64 kMaxPort = 65535;

[[noreturn]] void throwInvalid(String const& text) {
    throw CError("Invalid URI: '" + text + "'", "", -1, CProps(), nullptr);
}

/// A part of the text of `uri` with all escapes in place.
std::string completeEscapes(std::string_view part, CharTest isAllowed, String const& uri) {
    std::optional<std::string> const escaped = detail::completeEscapes(part, isAllowed);
    if (!escaped)
        throwInvalid(uri);
    return *escaped;
}

/// Escaped text for people; stays escaped if it stands for no text, or for control characters.
String unescapeForPeople(String const& escaped) {
    std::string const bytes = unescape(escaped.toStdString());
    bool const hasControls = std::any_of(bytes.begin(), bytes.end(), [](char character) {
        auto const byte = static_cast<unsigned char>(character);
        return byte < 0x20 || byte == 0x7f;
    });
    return hasControls ? escaped : String::tryFromUTF8(bytes).value_or(escaped);
}

/// A part that is held unescaped, from its escaped form in the text of `uri`. A part that is no
/// text could not be escaped back to what it was.
String unescapePart(std::string_view part, CharTest isAllowed, String const& uri) {
    std::optional<String> const text =
        String::tryFromUTF8(unescape(completeEscapes(part, isAllowed, uri)));
    if (!text)
        throwInvalid(uri);
    return *text;
}

/// The length of the scheme in front of the first colon, 0 if the text begins with none.
size_t getSchemeLength(std::string_view text) {
    if (text.empty() || !isAlpha(text[0]))
        return 0;
    for (size_t i = 1; i < text.size(); ++i) {
        if (text[i] == ':')
            return i;
        if (!isAlpha(text[i]) && !isDigit(text[i]) && !isOneOf(text[i], "+-."))
            return 0;
    }
    return 0;
}

/// An IPv6 or later address in brackets.
bool isAddressLiteral(std::string_view host) {
    return host.size() > 2 && host.front() == '[' && host.back() == ']' &&
           std::all_of(host.begin() + 1, host.end() - 1, [](char character) {
               return isAuthorityChar(character) || character == ':';
           });
}

std::string escapeHost(std::string const& host) {
    return isAddressLiteral(host) ? host : escape(host, isAuthorityChar);
}

bool isLowerCase(wxString const& text) {
    std::wstring_view const characters(text.wc_str(), text.length());
    return std::all_of(characters.begin(), characters.end(), [](wchar_t character) {
        return character < 0x80 && !(character >= 'A' && character <= 'Z');
    });
}

bool isUnreservedText(wxString const& text) {
    std::wstring_view const characters(text.wc_str(), text.length());
    return std::all_of(characters.begin(), characters.end(), [](wchar_t character) {
        return (character >= 'a' && character <= 'z') || (character >= '0' && character <= '9') ||
               (character < 0x80 && isUnreserved(static_cast<char>(character)));
    });
}

/// Whether an escaped path is sure to be its own normal form: it starts at a root, and has no
/// escapes, no repeated separators, and no names that begin with a dot.
bool isPlainPath(wxString const& text) {
    std::wstring_view const path(text.wc_str(), text.length());
    if (path.empty() || path.front() != '/' || path.find(L'%') != std::wstring_view::npos)
        return false;
    for (size_t name = 1; name < path.size();) {
        if (path[name] == '/' || path[name] == '.')
            return false;
        size_t const end = path.find(L'/', name);
        if (end == std::wstring_view::npos)
            break;
        name = end + 1;
    }
    return true;
}

/// Where the last name in an escaped path starts; 0 if the path has no root, no name at its end, or
/// one with escapes or with a dot in front.
size_t getPlainNameStart(wxString const& text) {
    std::wstring_view const path(text.wc_str(), text.length());
    size_t const start = path.rfind(L'/') + 1;
    bool const isPlain = path.starts_with(L'/') && start < path.size() && path[start] != L'.' &&
                         path.find(L'%', start) == std::wstring_view::npos;
    return isPlain ? start : 0;
}

/// Where the extension of a name starts; its end if there is none.
size_t getExtensionStart(wxString const& name) {
    size_t const dot = name.rfind('.');
    bool const onlyDotsBefore = dot == wxString::npos || name.find_first_not_of('.') >= dot;
    return onlyDotsBefore ? name.length() : dot;
}

std::optional<String> toOptional(TConstOptRef<String> const& text) {
    return text ? std::optional<String>(*text) : std::nullopt;
}

TConstOptRef<String> toOptRef(std::optional<String> const& text) {
    return text ? TConstOptRef<String>(*text) : TConstOptRef<String>();
}

} // namespace

CURI::CURI(String const& text) {
    std::string const utf8 = text.toStdString();
    std::string_view rest = utf8;
    if (size_t const start = rest.find('#'); start != std::string_view::npos) {
        m_fragment = unescapePart(rest.substr(start + 1), isQueryChar, text);
        rest = rest.substr(0, start);
    }
    if (size_t const start = rest.find('?'); start != std::string_view::npos) {
        m_query = String::fromUTF8(completeEscapes(rest.substr(start + 1), isQueryChar, text));
        rest = rest.substr(0, start);
    }
    if (size_t const length = getSchemeLength(rest); length > 0) {
        m_scheme = String::fromUTF8(rest.substr(0, length));
        rest = rest.substr(length + 1);
    }
    if (rest.starts_with("//")) {
        size_t const end = std::min(rest.find('/', 2), rest.size());
        parseAuthority(rest.substr(2, end - 2), text);
        rest = rest.substr(end);
    }
    setPath(completeEscapes(rest, isPathChar, text));
}

CURI::CURI(CURI const& other, String const*) : CURI(other) {}

CURI::CURI(String const& scheme, String const& path, TConstOptRef<String> userName,
           TConstOptRef<String> userAuthInfo, TConstOptRef<String> host, __int64 port,
           TConstOptRef<String> query, TConstOptRef<String> fragment)
    : m_scheme(scheme),
      m_userName(toOptional(userName)),
      m_userAuthInfo(toOptional(userAuthInfo)),
      m_host(toOptional(host)),
      m_port(port),
      m_fragment(toOptional(fragment)) {
    std::string const schemeStart = scheme.toStdString() + ":";
    if (!scheme.isEmpty() && getSchemeLength(schemeStart) + 1 != schemeStart.size())
        throw CInvalidArgError("CURI", "Invalid URI scheme: '" + scheme + "'", CProps());
    if (port < kNoPort || port > kMaxPort)
        throw CInvalidArgError("CURI", "Invalid URI port: " + yx::toString(port), CProps());
    // The text form has no place for one of these without those on its left.
    if (m_userAuthInfo && !m_userName)
        m_userName = String();
    if ((m_userName || m_port != kNoPort) && !m_host)
        m_host = String();
    if (query)
        m_query = String::fromUTF8(completeEscapes(query->toStdString(), isQueryChar, *query));
    setPath(completeEscapes(path.toStdString(), isPathChar, path));
}

bool CURI::operator==(CURI const& other) const {
    return m_scheme == other.m_scheme && m_path == other.m_path && m_userName == other.m_userName &&
           m_userAuthInfo == other.m_userAuthInfo && m_host == other.m_host &&
           m_port == other.m_port && m_query == other.m_query && m_fragment == other.m_fragment;
}

bool CURI::operator<(CURI const& other) const {
    // Texts that differ in the last part alone.
    bool const endInPath = !m_query && !other.m_query && !m_fragment && !other.m_fragment;
    if (endInPath && m_scheme == other.m_scheme && m_host == other.m_host &&
        m_userName == other.m_userName && m_userAuthInfo == other.m_userAuthInfo &&
        m_port == other.m_port)
        return m_path < other.m_path;
    return toString(true) < other.toString(true);
}

bool CURI::isEmpty() const {
    return m_scheme.isEmpty() && m_path.isEmpty() && !m_userName && !m_userAuthInfo && !m_host &&
           m_port == kNoPort && !m_query && !m_fragment;
}

String CURI::toString(bool escaped) const {
    auto const show = [escaped](String const& text, std::string const& escapedText) {
        return escaped ? String::fromUTF8(escapedText) : text;
    };
    auto const showEscaped = [escaped](String const& text) {
        return escaped ? text : unescapeForPeople(text);
    };
    String text;
    if (!m_scheme.isEmpty())
        text += m_scheme + ":";
    if (m_host) {
        text += "//";
        if (m_userName)
            text += show(*m_userName, escape(m_userName->toStdString(), isAuthorityChar));
        if (m_userAuthInfo)
            text +=
                ":" + show(*m_userAuthInfo, escape(m_userAuthInfo->toStdString(), isAuthorityChar));
        if (m_userName)
            text += "@";
        text += show(*m_host, escapeHost(m_host->toStdString()));
        if (m_port != kNoPort)
            text += ":" + yx::toString(m_port);
    }
    text += showEscaped(m_path);
    if (m_query)
        text += "?" + showEscaped(*m_query);
    if (m_fragment)
        text += "#" + show(*m_fragment, escape(m_fragment->toStdString(), isQueryChar));
    return text;
}

CURI CURI::toNormalized() const {
    CURI result = *this;
    result.normalize();
    return result;
}

void CURI::normalize() {
    bool const isOfThisSystem = m_host && m_host->isEmpty();
    if (isOfThisSystem && !m_query && isLowerCase(m_scheme.wx()) && isPlainPath(m_path.wx()))
        return;
    CURI result = *this;
    result.m_scheme = String::fromUTF8(toLowerAscii(m_scheme.toStdString()));
    if (m_host)
        result.m_host = String::fromUTF8(toLowerAscii(m_host->toStdString()));
    if (m_query)
        result.m_query = String::fromUTF8(normalizeEscapes(m_query->toStdString(), isUnreserved));

    std::string path = normalizeEscapes(m_path.toStdString(), isSegmentChar);
    path = removeDotSegments(collapseSeps(path), !isAbsolute() && !m_host);
    if (result.m_host && path.empty())
        path = "/";
    if (result.m_scheme == kFileScheme && path.starts_with('/') &&
        (!result.m_host || *result.m_host == kThisHost))
        result.m_host = String();
    result.setPath(path);
    *this = std::move(result);
}

CURI CURI::getParent() const {
    CURI result;
    result.m_scheme = m_scheme;
    result.m_userName = m_userName;
    result.m_userAuthInfo = m_userAuthInfo;
    result.m_host = m_host;
    result.m_port = m_port;
    if (size_t const start = m_host ? getPlainNameStart(m_path.wx()) : 0; start > 0) {
        result.m_path.wx().assign(m_path.wx(), 0, start);
        return result;
    }
    result.setPath(getParentPath(m_path.toStdString(), !isAbsolute()));
    return result;
}

String CURI::getName() const {
    if (size_t const start = getPlainNameStart(m_path.wx()); start > 0)
        return m_path.wx().substr(start);
    std::string const path = m_path.toStdString();
    std::string_view const trimmed = withoutTrailingSeps(path);
    std::optional<String> const name =
        String::tryFromUTF8(unescape(trimmed.substr(getNameStart(trimmed))));
    if (!name) {
        throw CIOError(CIOError::NotSupported, "The name in the URI is no UTF-8.",
                       makeUriProps(*this), nullptr);
    }
    return *name;
}

String CURI::getTitle() const {
    wxString const name = getName().wx();
    return name.Left(getExtensionStart(name));
}

String CURI::getExtension() const {
    wxString const name = getName().wx();
    return name.Mid(getExtensionStart(name));
}

TConstOptRef<String> CURI::getUserNameOptRef() const {
    return toOptRef(m_userName);
}

TConstOptRef<String> CURI::getUserAuthInfoOptRef() const {
    return toOptRef(m_userAuthInfo);
}

TConstOptRef<String> CURI::getHostOptRef() const {
    return toOptRef(m_host);
}

TConstOptRef<String> CURI::getEscapedUnicodeQueryOptRef() const {
    return toOptRef(m_query);
}

TConstOptRef<String> CURI::getFragmentOptRef() const {
    return toOptRef(m_fragment);
}

CURI CURI::operator<<(String const& component) const {
    CURI result;
    result.m_scheme = m_scheme;
    result.m_userName = m_userName;
    result.m_userAuthInfo = m_userAuthInfo;
    result.m_host = m_host;
    result.m_port = m_port;
    // Nothing to escape, and a path that stays as it is.
    std::wstring_view const path(m_path.wx().wc_str(), m_path.wx().length());
    if (m_host && path.starts_with(L'/') && path.ends_with(L'/') &&
        isUnreservedText(component.wx())) {
        wxString& joined = result.m_path.wx();
        joined.reserve(path.size() + component.wx().length());
        joined.append(m_path.wx());
        joined.append(component.wx());
        return result;
    }
    result.setPath(getFolderPath() + escape(component.toStdString(), isSegmentChar));
    return result;
}

CURI CURI::operator<<(CURI const& reference) const {
    if (reference.isAbsolute()) {
        CURI result = reference;
        result.setPath(removeDotSegments(reference.m_path.toStdString(), false));
        return result;
    }
    CURI result = reference;
    result.m_scheme = m_scheme;
    std::string path = reference.m_path.toStdString();
    if (!reference.m_host) {
        result.m_userName = m_userName;
        result.m_userAuthInfo = m_userAuthInfo;
        result.m_host = m_host;
        result.m_port = m_port;
        if (path.empty() && !reference.m_query)
            result.m_query = m_query;
        if (!path.starts_with('/'))
            path = getFolderPath() + path;
    }
    result.setPath(removeDotSegments(path, !isAbsolute()));
    return result;
}

void CURI::parseAuthority(std::string_view authority, String const& uri) {
    auto const decode = [&uri](std::string_view text) {
        return unescapePart(text, isAuthorityChar, uri);
    };
    if (size_t const at = authority.rfind('@'); at != std::string_view::npos) {
        std::string_view const user = authority.substr(0, at);
        size_t const colon = user.find(':');
        m_userName = decode(user.substr(0, colon));
        if (colon != std::string_view::npos)
            m_userAuthInfo = decode(user.substr(colon + 1));
        authority = authority.substr(at + 1);
    }

    size_t const literalEnd = authority.starts_with('[') ? authority.find(']') : 0;
    if (literalEnd == std::string_view::npos)
        throwInvalid(uri);
    size_t const hostEnd = std::min(authority.find(':', literalEnd), authority.size());
    std::string_view const host = authority.substr(0, hostEnd);
    if (literalEnd > 0 && !isAddressLiteral(host))
        throwInvalid(uri);
    m_host = literalEnd > 0 ? String::fromUTF8(host) : decode(host);

    if (hostEnd + 1 >= authority.size())
        return;
    std::string_view const digits = authority.substr(hostEnd + 1);
    bool const isNumber = std::all_of(digits.begin(), digits.end(), isDigit);
    auto const [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), m_port);
    if (!isNumber || error != std::errc() || m_port > kMaxPort)
        throwInvalid(uri);
}

void CURI::setPath(std::string path) {
    if (m_host) {
        if (!path.empty() && path[0] != '/')
            path.insert(0, "/");
    } else if (path.starts_with("//")) {
        path.insert(0, "/.");
    } else if (m_scheme.isEmpty()) {
        path = escapeColonsInFirstSegment(path);
    }
    // What the text form cannot show must not be there, or it would read back as another URI.
    assert(m_host || (!m_userName && !m_userAuthInfo && m_port == kNoPort));
    assert(completeEscapes(path, isPathChar) == path);
    m_path = String::fromUTF8(path);
}

std::string CURI::getFolderPath() const {
    std::string path = m_path.toStdString();
    bool const needsSep = path.empty() ? m_host.has_value() : path.back() != '/';
    return needsSep ? path + "/" : path;
}

std::ostream& operator<<(std::ostream& stream, CURI const& uri) {
    return stream << uri.toString(true);
}

} // namespace yx
