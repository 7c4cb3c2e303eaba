#pragma once

#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>

#include "yx/opt_ref.h"
#include "yx/path_impl.h"
#include "yx/string.h"

namespace yx {

/// A URI or a relative reference (RFC 3986): a scheme, a path, and optional user name,
/// authentication information, host, port, query and fragment. The path and the query are held in
/// escaped form, the other parts unescaped.
///
/// A value type. Two URIs are equal if all their parts are; `toNormalized` makes two spellings of
/// one file equal. `CURI(uri.toString(true)) == uri` for every URI, so the text is fit for
/// messages, keys and storage alike.
///
/// Escapes in the path and the query may stand for bytes that are no UTF-8, and every operation on
/// URIs keeps them as they are. Such bytes have no form as text, so a name that holds them is
/// refused where it would become text: by `getName`, `getTitle`, `getExtension` and the functions
/// that give native paths. Parts that are held unescaped cannot hold such bytes at all.
class YX_API CURI : public CBase {
public:
    /// The empty URI.
    CURI() = default;

    /// Parses URI text. Characters that a URI may not hold, such as a blank, are escaped. A colon
    /// with no valid scheme before it, as in "my disk:1", belongs to the path. A percent sign
    /// without two hexadecimal digits, a port that is no number up to 65535, a bad address in host
    /// brackets, or a user name, authentication information, host or fragment whose escapes are no
    /// UTF-8 is `CError`: "Invalid URI: '" text "'".
    CURI(String const& text);

    /// A copy. `text` is a place for a cached text form and is not used.
    CURI(CURI const& other, String const* text);

    /// From parts: `scheme` may be empty (a relative reference), `path` and `query` are escaped
    /// text (completed as the parser does it), `port` is -1 for none. Authentication information
    /// without a user name gets an empty one, and a user name or a port without a host an empty
    /// host. A bad scheme or port is `CInvalidArgError`; a percent sign without two hexadecimal
    /// digits in `path` or `query` is `CError`: "Invalid URI: '" and that part "'".
    CURI(String const& scheme, String const& path, TConstOptRef<String> userName,
         TConstOptRef<String> userAuthInfo, TConstOptRef<String> host, __int64 port,
         TConstOptRef<String> query, TConstOptRef<String> fragment);

    /// From a path, every character of which survives; only repeated separators become one. An
    /// absolute path becomes a `file:` URI with an empty host (a network share's server becomes the
    /// host), a relative one a relative reference. An absolute Windows path loses its dot segments,
    /// since its drive or share cannot be left by "..". With `asFolder` a separator ends the URI's
    /// path.
    CURI(TPathImpl<CUnixPathTraits> const& path, bool asFolder);
    CURI(TPathImpl<CWindowsPathTraits> const& path, bool asFolder);

    /// Part by part, without normalising.
    bool operator==(CURI const& other) const;
    bool operator!=(CURI const& other) const { return !(*this == other); }

    /// The order of `toString(true)`.
    bool operator<(CURI const& other) const;

    /// Whether no part is there.
    bool isEmpty() const;

    /// Whether it has a scheme.
    bool isAbsolute() const { return !m_scheme.isEmpty(); }

    /// The text of the URI: escaped, or for people with `escaped` false, which cannot be parsed
    /// back.
    String toString(bool escaped) const;

    /// The canonical form: scheme and host in lower case, no dot segments (but for a ".." at the
    /// start of a relative reference), no repeated separators, escapes only where needed and in
    /// upper case, "/" for an empty path behind a host, an empty host for `file:` URIs of this
    /// system.
    CURI toNormalized() const;

    /// Becomes what `toNormalized` returns, without a copy.
    void normalize();

    /// The folder that contains this: the path without its last component (a separator at its end
    /// does not count as one), ending in "/" unless that leaves it empty; no query, no fragment. A
    /// root is its own parent.
    CURI getParent() const;

    /// The last path component, unescaped, without separators behind it; the same up to its last
    /// dot; from its last dot on. A dot at the start of the name begins no extension, so title and
    /// extension together are always the name. A name whose escapes are no UTF-8 is `CIOError`
    /// `NotSupported`, "The name in the URI is no UTF-8.", with "uri".
    String getName() const;
    String getTitle() const;
    String getExtension() const;

    /// In the case in which it was given; empty for a relative reference.
    String const& getScheme() const { return m_scheme; }

    /// Escaped.
    String const& getPath() const { return m_path; }

    /// -1 if there is none.
    __int64 getPort() const { return m_port; }

    /// The other parts, unescaped but for the query. They live as long as the URI.
    TConstOptRef<String> getUserNameOptRef() const;
    TConstOptRef<String> getUserAuthInfoOptRef() const;
    TConstOptRef<String> getHostOptRef() const;
    TConstOptRef<String> getEscapedUnicodeQueryOptRef() const;
    TConstOptRef<String> getFragmentOptRef() const;

    /// This URI as a folder with one more component, which is escaped as a whole, separators and
    /// all. Query and fragment go. A component ".." has no escaped form and leads upwards.
    CURI operator<<(String const& component) const;

    /// `reference` resolved against this URI as a base folder, by RFC 3986 section 5.2, whether or
    /// not this URI's path ends in a separator. Without a scheme on either side the result is a
    /// relative reference that may start with "..".
    CURI operator<<(CURI const& reference) const;

private:
    void parseAuthority(std::string_view authority, String const& uri);

    /// Stores an escaped path in a form that stands unambiguously in this URI's text.
    void setPath(std::string path);

    /// The same for the escaped form of a native path.
    void setNativePath(std::string path, bool asFolder);

    /// The path with a separator at its end.
    std::string getFolderPath() const;

    String m_scheme;
    String m_path;
    std::optional<String> m_userName;
    std::optional<String> m_userAuthInfo;
    std::optional<String> m_host;
    __int64 m_port = -1;
    std::optional<String> m_query;
    std::optional<String> m_fragment;
};

/// Prints `toString(true)`.
YX_API std::ostream& operator<<(std::ostream& stream, CURI const& uri);

/// The operating system's path of a `file:` URI or of a relative reference. `CIOError`
/// `NotSupported` with "uri" for what names no file: another scheme, a `file:` URI without an
/// absolute path, a foreign host on a system without network paths, a user name, port, query or
/// fragment, an escaped zero byte or separator, escapes that are no UTF-8.
YX_API String toNativePath(CURI const& uri);

/// The same for a given kind of system.
YX_API String toUnixPath(CURI const& uri);
YX_API String toWindowsPath(CURI const& uri);

} // namespace yx

template <>
struct std::hash<yx::CURI> {
    std::size_t operator()(yx::CURI const& uri) const {
        return std::hash<yx::String>()(uri.toString(true));
    }
};
