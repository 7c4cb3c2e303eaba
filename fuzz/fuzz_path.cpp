// Paths of both kinds. The input is the text of a folder's path, a line feed, and the text of a
// path.

#include "fuzz/support/harness.h"
#include "yx/uri.h"

namespace {

using kelm::fuzz::attempt;
using kelm::fuzz::require;

template <class Traits>
void checkNormalForm(yx::TPathImpl<Traits> const& path) {
    using Path = yx::TPathImpl<Traits>;
    Path const normal = path.normalize(false, Path());
    Path const again = Path(normal.getPath(), true, false).normalize(false, Path());
    require(again.getPath() == normal.getPath(), "a normalised path is normalised");
    // The other way round does not hold: "a\\..\\C:\\b" loses what kept the drive from being one.
    require(normal.isAbsolute() || !path.isAbsolute(), "an absolute path stays absolute");
    require(!normal.isAbsolute() || normal.getIsNormalized(),
            "a normalised absolute path says that it is");
}

/// A name that completes a root, as "share" does "\\\\server\\", gets the separator behind it only
/// when the text is normalised anew.
template <class Traits>
void checkAppended(yx::TPathImpl<Traits> const& path) {
    using Path = yx::TPathImpl<Traits>;
    Path const normal = path.normalize(false, Path());
    Path const again = Path(normal.getPath(), true, false).normalize(false, Path());
    require(again.getPath() == normal.getPath() ||
                again.getPath() == yx::String(normal.getPath() + Traits::getSep()),
            "a name appended to a normalised path leaves it normalised");
}

template <class Traits>
void checkPath(yx::String const& folderText, yx::String const& text) {
    using Path = yx::TPathImpl<Traits>;
    attempt([&] {
        Path const path(text, true, false);
        attempt([&] { checkNormalForm(path); });
        attempt([&] {
            yx::CURI const uri(path, false);
            require(uri.isAbsolute() == path.isAbsolute(),
                    "the URI of an absolute path is absolute, of a relative one relative");
            require(yx::CURI(uri.toString(true)) == uri, "a path's URI reads back as printed");
        });
        Path const folder(folderText, true, false);
        Path const joined = folder.append(path);
        attempt([&] { checkNormalForm(joined); });
        require(!path.isAbsolute() || joined.getPath() == path.getPath(),
                "an absolute path ignores the folder");
        attempt([&] {
            Path const absolute = path.normalize(true, folder);
            require(absolute.getIsNormalized(), "a path made absolute is normalised");
        });
        attempt([&] { checkAppended(folder.normalize(false, Path()).append(path)); });
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    auto const [folder, path] = kelm::fuzz::toTwoTexts({data, size});
    checkPath<yx::CUnixPathTraits>(folder, path);
    checkPath<yx::CWindowsPathTraits>(folder, path);
    return 0;
}
