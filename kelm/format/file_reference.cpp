#include "kelm/format/file_reference.h"

#include <algorithm>
#include <string_view>

namespace kelm {

// How a reference is read; the first row that fits decides.
//
//   C:\disks\a.vmdk  C:/disks/a.vmdk    letter, colon, separator      Windows absolute path
//   file:///disks/a.vmdk  C:a.vmdk  C:  colon, no separator before it URI (scheme "C" for the last
//                                                                     two: deliberate, as there is
//                                                                     no current folder of a drive)
//   sub\a.vmdk  ..\a.vmdk  a\b/c.vmdk   a backslash anywhere          Windows path
//   a.vmdk  /disks/a.vmdk  :a.vmdk      all else                      Unix path
//   sub/a:b.vmdk

namespace {

bool isSeparator(wxUniChar character) {
    return character == '/' || character == '\\';
}

/// ASCII letters alone, so that the answer is the same in every locale.
bool isLetter(wxUniChar character) {
    return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

bool isWindowsAbsolute(wxString const& reference) {
    return reference.length() >= 3 && isLetter(reference[0]) && reference[1] == ':' &&
           isSeparator(reference[2]);
}

bool isURI(wxString const& reference) {
    size_t const colon = reference.find(':');
    return colon != wxString::npos && colon > 0 && reference.find_first_of(L"/\\") > colon;
}

yx::CURI windowsPathToURI(yx::String const& path) {
    return yx::CURI(yx::TPathImpl<yx::CWindowsPathTraits>(path, true, false), false);
}

yx::CURI unixPathToURI(yx::String const& path) {
    return yx::CURI(yx::TPathImpl<yx::CUnixPathTraits>(path, true, false), false);
}

/// A relative path becomes a reference without scheme, which a folder's URI can resolve.
yx::CURI withoutScheme(yx::CURI const& uri) {
    return yx::CURI("", uri.getPath(), uri.getUserNameOptRef(), uri.getUserAuthInfoOptRef(),
                    uri.getHostOptRef(), uri.getPort(), uri.getEscapedUnicodeQueryOptRef(),
                    uri.getFragmentOptRef());
}

yx::CURI pathToURI(yx::String const& path) {
    bool const isWindowsPath = path.wx().find('\\') != wxString::npos;
    yx::CURI const uri = isWindowsPath ? windowsPathToURI(path) : unixPathToURI(path);
    return uri.isAbsolute() ? uri : withoutScheme(uri);
}

/// Whether a reference is a mere name, of characters that mean nothing else anywhere.
bool isPlainName(wxString const& reference) {
    std::wstring_view const name(reference.wc_str(), reference.length());
    return !name.empty() && name.front() != '.' &&
           std::all_of(name.begin(), name.end(), [](wchar_t character) {
               return (character >= 'a' && character <= 'z') ||
                      (character >= '0' && character <= '9') ||
                      (character >= 'A' && character <= 'Z') || character == '-' ||
                      character == '_' || character == '.';
           });
}

yx::CURI toURI(yx::String const& reference) {
    if (isWindowsAbsolute(reference.wx()))
        return windowsPathToURI(reference);
    if (isURI(reference.wx()))
        return yx::CURI(reference);
    return pathToURI(reference);
}

} // namespace

yx::CURI vmdkFileReferenceToURI(yx::CURI const& baseFolder, yx::String const& reference) {
    // What most descriptors name, and some a thousand times.
    if (isPlainName(reference.wx())) {
        yx::CURI uri = baseFolder << reference;
        uri.normalize();
        return uri;
    }
    yx::CURI const uri = toURI(reference);
    return (uri.isAbsolute() ? uri : baseFolder << uri).toNormalized();
}

} // namespace kelm
