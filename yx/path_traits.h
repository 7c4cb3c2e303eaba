#pragma once

#include "yx/string.h"

namespace yx {

template <class Traits>
class TPathImpl;

/// What all path traits have in common.
class YX_API CPathTraitsBase {};

/// Paths with "/" alone as separator. The root is the run of leading separators; it counts as one.
/// No text needs to be normalised to be valid.
class YX_API CUnixPathTraits : public CPathTraitsBase {
public:
    /// Whether the path begins at a root.
    static bool isAbsolute(String const& path);

    /// Whether a character separates components.
    static bool isSep(wchar_t character);

    /// The separator that normal forms use.
    static String getSep();
    static wchar_t getSepChar();

    /// All separators, in one text.
    static String getAllSeps();

    /// Whether this path type is that of the running system.
    static bool isNativePathType();

protected:
    friend class TPathImpl<CUnixPathTraits>;

    /// The length of the root part, -1 if there is none. `rebuiltLength`, which may be null,
    /// receives the length that the root takes in the rebuilt path.
    static int getRootLength(String const& path, int* rebuiltLength);

    /// Makes every separator the normal one.
    static void normalizeSeparators(String& path);

    /// Brings the root part, or a single component, to its normal form.
    static void normalizeRoot(String& root);
    static void normalizeComponent(String& component);

    /// The last step for a path that was put together from normal parts.
    static void finalizeNormalizedPath(String& path);

    /// Whether the system would not take the path as it stands.
    static bool pathNeedsToBeNormalizedToBeValid(String const& path);
};

/// Paths with a backslash as separator, and "/" accepted. Roots are drive letters ("C:\", also "C:"
/// alone for the drive's current folder, which makes no absolute path), network shares
/// ("\\server\share\"), devices ("\\?\C:\", "\\?\UNC\server\share\", "\\.\name\") and the leading
/// separator. The system takes a path with the prefix "\\?\" as it stands, so one that has "/" or,
/// behind its root, ".", ".." or an empty component needs to be normalised to be valid.
class YX_API CWindowsPathTraits : public CPathTraitsBase {
public:
    /// See `CUnixPathTraits`.
    static bool isAbsolute(String const& path);
    static bool isSep(wchar_t character);
    static String getSep();
    static wchar_t getSepChar();
    static String getAllSeps();
    static bool isNativePathType();

protected:
    friend class TPathImpl<CWindowsPathTraits>;

    /// See `CUnixPathTraits`.
    static int getRootLength(String const& path, int* rebuiltLength);
    static void normalizeSeparators(String& path);

    /// A drive letter in upper case; single separators, one of them at the end, except that "C:"
    /// alone becomes "C:.", which `finalizeNormalizedPath` takes back.
    static void normalizeRoot(String& root);

    /// Trailing dots and blanks go, as the system drops them too.
    static void normalizeComponent(String& component);

    /// See `CUnixPathTraits`.
    static void finalizeNormalizedPath(String& path);
    static bool pathNeedsToBeNormalizedToBeValid(String const& path);
};

/// The current directory. `CIOError` `IOFailure` if there is none any more; `NotSupported` if its
/// path is no UTF-8, "The path of the current directory is no UTF-8: " and the path, escaped as in
/// a URI.
YX_API String getCurrentWorkDirectoryAsString();

} // namespace yx
