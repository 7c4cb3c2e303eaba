#include "host/store/local_names.h"

#include <cstdlib>
#include <memory>
#include <optional>

#include <sys/stat.h>

#include "yx/error.h"

namespace kelm::host {

namespace {

using Path = yx::TPathImpl<yx::CUnixPathTraits>;

yx::CURI uriOfPath(yx::String const& path) {
    return yx::CURI(Path(path, true, false), false);
}

/// The real path, empty if there is none.
yx::String realPath(yx::String const& path) {
    std::unique_ptr<char, decltype(&std::free)> const resolved(
        ::realpath(path.toStdString().c_str(), nullptr), &std::free);
    if (!resolved)
        return {};
    return decodeLocalName(resolved.get(), "The name of a folder or file is not valid UTF-8.");
}

[[noreturn]] void throwNotFound(yx::String const& path) {
    throw yx::CIOError(yx::CIOError::NotFound, "No such file or directory",
                       yx::CProps().add("uri", uriOfPath(path).toString(true)), nullptr);
}

bool isLink(yx::String const& path) {
    struct stat status = {};
    return ::lstat(path.toStdString().c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

} // namespace

yx::String decodeLocalName(char const* name, char const* message) {
    std::optional<yx::String> const text = yx::String::tryFromUTF8(name);
    if (!text) {
        throw yx::CIOError(yx::CIOError::NotSupported, message,
                           yx::CProps().add("name", yx::String::fromUTF8(name)), nullptr);
    }
    return *text;
}

yx::CURI resolveLocalName(yx::String const& path) {
    yx::String const real = realPath(path);
    if (!real.isEmpty())
        return uriOfPath(real).toNormalized();

    // A link that leads nowhere would give a file two names, the link's and its own.
    if (isLink(path))
        throwNotFound(path);
    // The file is still to be made: what must exist is its folder. The name is split off as it
    // stands, since ".." behind a link means the link's target.
    wxString const& characters = path.wx();
    size_t const sep = characters.rfind('/');
    yx::String const folder = sep == wxString::npos ? "." : yx::String(characters.Left(sep + 1));
    yx::String const name = sep == wxString::npos ? path : yx::String(characters.Mid(sep + 1));
    yx::String const realFolder = realPath(folder);
    if (realFolder.isEmpty() || name.isEmpty() || name == "." || name == "..")
        throwNotFound(path);
    return (uriOfPath(realFolder) << name).toNormalized();
}

} // namespace kelm::host
