// URIs made of the operating systems' paths, and the paths that URIs name.

#include <algorithm>
#include <string>
#include <string_view>

#include "yx/error.h"
#include "yx/internal/stream_error.h"
#include "yx/internal/uri_escape.h"
#include "yx/internal/uri_path.h"
#include "yx/uri.h"

namespace yx {

using namespace detail;

namespace {

/// An absolute Windows path with "/" for separators: the server of a network share, the part that
/// ".." cannot leave, and the rest.
struct WindowsPathParts {
    std::string server;
    std::string root;
    std::string rest;
};

bool isDriveAt(std::string_view path, size_t position) {
    return position + 1 < path.size() && isAlpha(path[position]) && path[position + 1] == ':';
}

WindowsPathParts splitWindowsPath(std::string_view path) {
    constexpr std::string_view kVerbatimDrivePrefix = "//?/";
    constexpr std::string_view kVerbatimSharePrefix = "//?/unc/";
    std::string text(path);
    if (toLowerAscii(text.substr(0, kVerbatimSharePrefix.size())) == kVerbatimSharePrefix)
        text.replace(0, kVerbatimSharePrefix.size(), "//");
    else if (text.starts_with(kVerbatimDrivePrefix) && isDriveAt(text, kVerbatimDrivePrefix.size()))
        text.erase(0, kVerbatimDrivePrefix.size());

    if (isDriveAt(text, 0) && text.size() > 2 && text[2] == '/')
        return {"", "/" + toUpperAscii(text.substr(0, 2)), text.substr(2)};
    if (text.starts_with("//") && text.size() > 2 && text[2] != '/') {
        size_t const serverEnd = std::min(text.find('/', 2), text.size());
        size_t const shareStart = std::min(text.find_first_not_of('/', serverEnd), text.size());
        size_t const shareEnd = std::min(text.find('/', shareStart), text.size());
        return {text.substr(2, serverEnd - 2), "/" + text.substr(shareStart, shareEnd - shareStart),
                text.substr(shareEnd)};
    }
    return {"", "", text};
}

[[noreturn]] void throwNoNativePath(CURI const& uri, char const* reason) {
    throw CIOError(CIOError::NotSupported,
                   "The URI names no file of the operating system: " + String(reason),
                   makeUriProps(uri), nullptr);
}

bool holdsZeroOrOneOf(std::string_view text, std::string_view characters) {
    return text.find('\0') != std::string_view::npos ||
           text.find_first_of(characters) != std::string_view::npos;
}

/// The host, if it is another system than this one.
std::string getForeignHost(CURI const& uri) {
    TConstOptRef<String> const host = uri.getHostOptRef();
    std::string const name = host ? host->toStdString() : "";
    return toLowerAscii(name) == kThisHost ? "" : name;
}

/// The path of a `file:` URI or of a relative reference, unescaped; `separators` may not come out
/// of an escape. The host is the caller's business.
std::string toPathBytes(CURI const& uri, std::string_view separators) {
    bool const isFile = toLowerAscii(uri.getScheme().toStdString()) == kFileScheme;
    if (!isFile && uri.isAbsolute())
        throwNoNativePath(uri, "its scheme is not \"file\".");
    if (uri.getUserNameOptRef() || uri.getPort() != kNoPort)
        throwNoNativePath(uri, "it has a user name or a port.");
    if (uri.getEscapedUnicodeQueryOptRef() || uri.getFragmentOptRef())
        throwNoNativePath(uri, "it has a query or a fragment.");

    std::string const path = uri.getPath().toStdString();
    if (isFile && !path.starts_with('/'))
        throwNoNativePath(uri, "its path is not absolute.");
    std::string bytes = unescape(path);
    // The separators of the URI itself are the only ones that may come out.
    std::string names = path;
    std::replace(names.begin(), names.end(), '/', ' ');
    if (holdsZeroOrOneOf(unescape(names), separators))
        throwNoNativePath(uri, "a name in its path holds a zero byte or a separator.");
    if (!String::tryFromUTF8(bytes))
        throwNoNativePath(uri, "its path is no UTF-8.");
    return bytes;
}

/// Whether a URI's path is the path that it names, as it is.
bool namesItsPath(CURI const& uri) {
    TConstOptRef<String> const host = uri.getHostOptRef();
    wxString const& path = uri.getPath().wx();
    return uri.getScheme() == kFileScheme && host && host->isEmpty() && !uri.getUserNameOptRef() &&
           uri.getPort() == kNoPort && !uri.getEscapedUnicodeQueryOptRef() &&
           !uri.getFragmentOptRef() && path.StartsWith(L"/") && path.find('%') == wxString::npos;
}

} // namespace

CURI::CURI(TPathImpl<CUnixPathTraits> const& path, bool asFolder) {
    if (path.isAbsolute()) {
        m_scheme = kFileScheme;
        m_host = String();
    }
    setNativePath(escapeNativePath(path.getPath().toStdString()), asFolder);
}

CURI::CURI(TPathImpl<CWindowsPathTraits> const& path, bool asFolder) {
    String text = path.getPath();
    text.wx().Replace(L"\\", L"/");
    if (!path.isAbsolute()) {
        setNativePath(escapeNativePath(text.toStdString()), asFolder);
        return;
    }
    WindowsPathParts const parts = splitWindowsPath(text.toStdString());
    m_scheme = kFileScheme;
    m_host = String::fromUTF8(parts.server);
    std::string const rest = removeDotSegments(escapeNativePath(parts.rest), false);
    setNativePath(escapeNativePath(parts.root) + rest, asFolder);
}

void CURI::setNativePath(std::string path, bool asFolder) {
    if (asFolder && !path.empty() && !path.ends_with('/'))
        path += "/";
    setPath(path);
}

String toUnixPath(CURI const& uri) {
    if (namesItsPath(uri))
        return uri.getPath();
    String path = String::fromUTF8(toPathBytes(uri, "/"));
    if (!getForeignHost(uri).empty())
        throwNoNativePath(uri, "its host is another system.");
    return path;
}

String toWindowsPath(CURI const& uri) {
    constexpr std::string_view kSeparators = "/\\";
    std::string path = toPathBytes(uri, kSeparators);
    std::string const server = getForeignHost(uri);
    if (holdsZeroOrOneOf(server, kSeparators))
        throwNoNativePath(uri, "its host is no server's name.");
    if (!server.empty())
        path.insert(0, "//" + server);
    else if (path.starts_with('/') && isDriveAt(path, 1))
        path = path.substr(1) + (path.size() == 3 ? "/" : "");
    std::replace(path.begin(), path.end(), '/', '\\');
    return String::fromUTF8(path);
}

String toNativePath(CURI const& uri) {
    return CWindowsPathTraits::isNativePathType() ? toWindowsPath(uri) : toUnixPath(uri);
}

} // namespace yx
