#include "yx/path_traits.h"

#include <filesystem>
#include <optional>
#include <string_view>
#include <system_error>

#include "yx/error.h"
#include "yx/internal/uri_path.h"

namespace yx {

namespace {

/// Of a path that the system takes as it stands.
constexpr wchar_t kVerbatimPrefix[] = L"\\\\?\\";

/// Of "\\?\" and "\\.\" alike.
constexpr size_t kDevicePrefixLength = 4;

/// The device that network shares are reached through.
constexpr wchar_t kShareDevice[] = L"UNC";
constexpr size_t kShareDeviceLength = std::size(kShareDevice) - 1;

bool isLetter(wxUniChar character) {
    return (character >= 'A' && character <= 'Z') || (character >= 'a' && character <= 'z');
}

/// Whatever the locale says about letters.
wxUniChar toUpperLetter(wxUniChar character) {
    bool const isLower = character >= 'a' && character <= 'z';
    return isLower ? wxUniChar(character.GetValue() - 'a' + 'A') : character;
}

/// Positions in a Windows path whose separators may be of both kinds.
class WindowsPathScanner {
public:
    explicit WindowsPathScanner(wxString const& text) : m_text(text) {}

    bool isSepAt(size_t position) const {
        return position < m_text.length() && CWindowsPathTraits::isSep(m_text[position]);
    }

    bool isDriveAt(size_t position) const {
        return position + 1 < m_text.length() && isLetter(m_text[position]) &&
               m_text[position + 1] == ':';
    }

    size_t skipSeps(size_t position) const {
        while (isSepAt(position))
            ++position;
        return position;
    }

    size_t skipComponent(size_t position) const {
        while (position < m_text.length() && !isSepAt(position))
            ++position;
        return position;
    }

    /// Behind a component and the separators that follow it.
    size_t skipComponentAndSeps(size_t position) const { return skipSeps(skipComponent(position)); }

    /// Whether this is a device path, such as "\\?\C:\x" or "\\.\PhysicalDrive0".
    bool isDevicePath() const {
        return isSepAt(0) && isSepAt(1) && m_text.length() >= kDevicePrefixLength &&
               (m_text[2] == '?' || m_text[2] == '.') && isSepAt(3);
    }

    /// Whether this begins with just two separators, as "\\server\share" does.
    bool isShare() const { return skipSeps(0) == 2; }

    size_t skipServerAndShare(size_t position) const {
        return skipComponentAndSeps(skipComponentAndSeps(skipSeps(position)));
    }

    size_t skipDeviceRoot() const {
        size_t const start = skipSeps(kDevicePrefixLength);
        size_t const end = start + kShareDeviceLength;
        if (isSepAt(end) && m_text.Mid(start, kShareDeviceLength).IsSameAs(kShareDevice, false))
            return skipServerAndShare(end);
        return skipComponentAndSeps(start);
    }

private:
    wxString const& m_text;
};

size_t countLeadingSeps(wxString const& text) {
    size_t const end = text.find_first_not_of('/');
    return end == wxString::npos ? text.length() : end;
}

} // namespace

bool CUnixPathTraits::isAbsolute(String const& path) {
    return path.wx().StartsWith(L"/");
}

bool CUnixPathTraits::isSep(wchar_t character) {
    return character == L'/';
}

String CUnixPathTraits::getSep() {
    return "/";
}

wchar_t CUnixPathTraits::getSepChar() {
    return L'/';
}

String CUnixPathTraits::getAllSeps() {
    return "/";
}

bool CUnixPathTraits::isNativePathType() {
    return !CWindowsPathTraits::isNativePathType();
}

int CUnixPathTraits::getRootLength(String const& path, int* rebuiltLength) {
    auto const length = static_cast<int>(countLeadingSeps(path.wx()));
    int const rebuilt = length > 0 ? 1 : -1;
    if (rebuiltLength)
        *rebuiltLength = rebuilt;
    return length > 0 ? length : -1;
}

void CUnixPathTraits::normalizeSeparators(String&) {}

void CUnixPathTraits::normalizeRoot(String& root) {
    root = "/";
}

void CUnixPathTraits::normalizeComponent(String&) {}

void CUnixPathTraits::finalizeNormalizedPath(String&) {}

bool CUnixPathTraits::pathNeedsToBeNormalizedToBeValid(String const&) {
    return false;
}

bool CWindowsPathTraits::isAbsolute(String const& path) {
    WindowsPathScanner const scanner(path.wx());
    return scanner.isSepAt(0) || (scanner.isDriveAt(0) && scanner.isSepAt(2));
}

bool CWindowsPathTraits::isSep(wchar_t character) {
    return character == L'\\' || character == L'/';
}

String CWindowsPathTraits::getSep() {
    return "\\";
}

wchar_t CWindowsPathTraits::getSepChar() {
    return L'\\';
}

String CWindowsPathTraits::getAllSeps() {
    return "\\/";
}

bool CWindowsPathTraits::isNativePathType() {
#if defined(_WIN32)
    return true;
#else
    return false;
#endif
}

int CWindowsPathTraits::getRootLength(String const& path, int* rebuiltLength) {
    WindowsPathScanner const scanner(path.wx());
    size_t length = 0;
    if (scanner.isDriveAt(0))
        length = scanner.skipSeps(2);
    else if (scanner.isDevicePath())
        length = scanner.skipDeviceRoot();
    else if (scanner.isShare())
        length = scanner.skipServerAndShare(2);
    else
        length = scanner.skipSeps(0);

    if (rebuiltLength) {
        String root = path.wx().Left(length);
        normalizeRoot(root);
        finalizeNormalizedPath(root);
        *rebuiltLength = length > 0 ? root.getLength() : -1;
    }
    return length > 0 ? static_cast<int>(length) : -1;
}

void CWindowsPathTraits::normalizeSeparators(String& path) {
    path.wx().Replace(L"/", L"\\");
}

void CWindowsPathTraits::normalizeRoot(String& root) {
    normalizeSeparators(root);
    wxString& text = root.wx();
    WindowsPathScanner const scanner(text);
    if (scanner.isDriveAt(0)) {
        bool const absolute = scanner.isSepAt(2);
        // A drive without a separator stands for the drive's current folder. "C:." says so too, and
        // stays right when a separator and a component are put behind it.
        text = wxString(toUpperLetter(text[0])) + (absolute ? ":\\" : ":.");
        return;
    }
    bool const share = scanner.isDevicePath() || scanner.isShare();
    wxString rebuilt = share ? "\\\\" : "\\";
    for (size_t start = scanner.skipSeps(0); start < text.length();) {
        size_t const end = scanner.skipComponent(start);
        rebuilt += text.substr(start, end - start) + "\\";
        start = scanner.skipSeps(end);
    }
    text = rebuilt;
}

void CWindowsPathTraits::normalizeComponent(String& component) {
    wxString& text = component.wx();
    size_t const last = text.find_last_not_of(". ");
    text.erase(last == wxString::npos ? 0 : last + 1);
}

void CWindowsPathTraits::finalizeNormalizedPath(String& path) {
    wxString& text = path.wx();
    WindowsPathScanner const scanner(text);
    if (!scanner.isDriveAt(0))
        return;
    // The drive may have been a component until those before it went.
    text[0] = toUpperLetter(text[0]);
    if (text == text.Left(2) + ".")
        text.erase(2);
    else if (text.Mid(2).StartsWith(L".\\"))
        text.erase(2, 2);
}

bool CWindowsPathTraits::pathNeedsToBeNormalizedToBeValid(String const& path) {
    wxString const& text = path.wx();
    if (!text.StartsWith(kVerbatimPrefix))
        return false;
    if (text.Contains(L"/"))
        return true;
    // Only what stands behind the root is looked at: that is what normalising makes right, so a
    // normalised path never needs it again.
    WindowsPathScanner const scanner(text);
    for (size_t start = scanner.skipDeviceRoot(); start < text.length();) {
        size_t const end = scanner.skipComponent(start);
        wxString const component = text.substr(start, end - start);
        if (component.empty() || component == "." || component == "..")
            return true;
        start = end + 1;
    }
    return false;
}

String getCurrentWorkDirectoryAsString() {
    std::error_code error;
    std::filesystem::path const path = std::filesystem::current_path(error);
    if (error)
        throw CIOError(CIOError::IOFailure,
                       "Cannot get the current directory: " + String::fromUTF8(error.message()),
                       CProps(), nullptr);
    std::u8string const utf8 = path.u8string();
    std::string_view const bytes(reinterpret_cast<char const*>(utf8.data()), utf8.size());
    std::optional<String> const text = String::tryFromUTF8(bytes);
    if (!text) {
        // Another reading of the bytes would name another folder.
        throw CIOError(CIOError::NotSupported,
                       "The path of the current directory is no UTF-8: " +
                           String::fromUTF8(detail::escapeNativePath(bytes)),
                       CProps(), nullptr);
    }
    return *text;
}

} // namespace yx
