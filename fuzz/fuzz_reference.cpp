// URIs, and the references by which a descriptor names other files. The input is the text of a
// folder's URI, a line feed, and the text of a reference.

#include <optional>

#include "fuzz/support/harness.h"
#include "host/store/file_names.h"
#include "kelm/format/file_reference.h"

namespace {

using namespace kelm;
using kelm::fuzz::attempt;
using kelm::fuzz::require;

std::optional<yx::CURI> tryParse(yx::String const& text) {
    std::optional<yx::CURI> uri;
    attempt([&] { uri = yx::CURI(text); });
    return uri;
}

void checkURI(yx::CURI const& uri) {
    require(yx::CURI(uri.toString(true)) == uri, "a URI reads back as it is printed");
    yx::CURI const normalized = uri.toNormalized();
    require(normalized.toNormalized() == normalized, "a normalised URI is normalised");
    require(yx::CURI(normalized.toString(true)) == normalized,
            "a normalised URI reads back as it is printed");
    uri.toString(false);
    yx::CURI const parent = uri.getParent();
    require(yx::CURI(parent.toString(true)) == parent, "a parent reads back as it is printed");
    yx::String name;
    if (!attempt([&] { name = uri.getName(); }))
        return;
    require(yx::String(uri.getTitle() + uri.getExtension()) == name,
            "title and extension make the name");
    require((parent << name).getName() == name || name.isEmpty() || name == "." || name == "..",
            "a folder with a name in it ends with the name");
}

void checkNativePath(yx::CURI const& uri) {
    yx::CURI const normalized = uri.toNormalized();
    attempt([&] {
        yx::String const path = yx::toUnixPath(normalized);
        yx::CURI const back(yx::TPathImpl<yx::CUnixPathTraits>(path, true, false), false);
        require(!normalized.isAbsolute() || back.toNormalized() == normalized,
                "a native path leads back to its URI");
    });
    attempt([&] { yx::toWindowsPath(uri); });
}

void checkReference(yx::CURI const& folder, yx::String const& text) {
    yx::CURI file;
    if (!attempt([&] { file = vmdkFileReferenceToURI(folder, text); }))
        return;
    require(file.toNormalized() == file, "a file reference gives a normalised URI");
    checkURI(file);
    require(file.isAbsolute() || !folder.isAbsolute(),
            "a reference from an absolute folder is absolute");
    if (folder.toNormalized().getScheme() == "file" && file.getScheme() == "file") {
        yx::String const reference = host::makeFileReference(folder, file);
        require(vmdkFileReferenceToURI(folder, reference) == file,
                "a reference that was made leads to its file");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    auto const [folderText, reference] = kelm::fuzz::toTwoTexts({data, size});

    std::optional<yx::CURI> const folder = tryParse(folderText);
    if (folder) {
        checkURI(*folder);
        checkNativePath(*folder);
    }
    if (std::optional<yx::CURI> const uri = tryParse(reference)) {
        checkURI(*uri);
        checkNativePath(*uri);
        if (folder)
            checkURI(*folder << *uri);
    }
    checkReference(folder ? *folder : yx::CURI("file:///disks/"), reference);
    return 0;
}
