#include "host/store/file_names.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "host/store/file_status.h"
#include "host/store/local_names.h"
#include "host/store/stores.h"
#include "kelm/format/file_reference.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

bool isFileURI(std::string const& argument) {
    return argument.rfind("file:", 0) == 0;
}

/// The scheme of a name that could be a URI of a store; empty for any other.
std::string schemeOf(std::string const& argument) {
    std::string scheme = argument.substr(0, std::min(argument.find(":/"), argument.size()));
    bool const isScheme =
        scheme.size() < argument.size() && scheme.size() > 1 &&
        scheme.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789+-.") == std::string::npos;
    return isScheme ? scheme : std::string();
}

/// The components of a normalised, absolute URI's path, still escaped.
std::vector<wxString> splitPath(yx::CURI const& uri) {
    std::vector<wxString> components;
    wxString const& path = uri.getPath().wx();
    for (size_t start = 1; start <= path.length();) {
        size_t const sep = path.find('/', start);
        size_t const end = sep == wxString::npos ? path.length() : sep;
        if (end > start)
            components.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return components;
}

/// Nothing for bytes that are no UTF-8 and so have no form as text.
std::optional<yx::String> tryUnescape(wxString const& component) {
    yx::CURI const uri("", "/" + yx::String(component), nullptr, nullptr, nullptr, -1, nullptr,
                       nullptr);
    try {
        return uri.getName();
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() != yx::CIOError::NotSupported)
            throw;
        return std::nullopt;
    }
}

/// From the component at `common` of both on, as a path relative to `from`; nothing for names that
/// have no form as text.
std::optional<yx::String> relativePath(std::vector<wxString> const& from,
                                       std::vector<wxString> const& to, size_t common) {
    yx::String path;
    for (size_t i = common; i < from.size(); ++i)
        path += "../";
    for (size_t i = common; i < to.size(); ++i) {
        std::optional<yx::String> const name = tryUnescape(to[i]);
        if (!name)
            return std::nullopt;
        path += (i > common ? "/" : "") + *name;
    }
    return path;
}

} // namespace

yx::CURI uriFromArgument(std::string const& argument) {
    yx::String const text = decodeLocalName(argument.c_str(), "A file name is not valid UTF-8.");
    if (isStoreURI(argument)) {
        yx::CURI const uri(text);
        return storeOf(uri).resolveName(uri);
    }
    if (isFileURI(argument))
        return resolveLocalName(yx::toNativePath(yx::CURI(text)));
    try {
        return resolveLocalName(text);
    } catch (yx::CIOError const& error) {
        std::string const scheme = schemeOf(argument);
        if (error.getIOCode() != yx::CIOError::NotFound || scheme.empty())
            throw;
        throw yx::CIOError(yx::CIOError::NotFound,
                           yx::String::fromUTF8("There is no store for '" + scheme +
                                                ":' here, and no such file or directory."),
                           yx::CProps().add("uri", text), nullptr);
    }
}

yx::CURI resolveName(yx::CURI const& uri) {
    IStore* const store = findStore(uri);
    return store ? store->resolveName(uri) : uri.toNormalized();
}

bool isSameFile(yx::CURI const& left, yx::CURI const& right) {
    if (left.toNormalized() == right.toNormalized())
        return true;
    std::optional<FileIdentity> const identity = identifyFile(left);
    return identity && identity == identifyFile(right);
}

bool isOtherThanFile(yx::CURI const& uri) {
    std::optional<FileStatus> const status = findStatus(uri);
    return status && status->kind != FileKind::File;
}

bool isReferenceTo(yx::CURI const& folder, yx::String const& reference, yx::CURI const& file) {
    try {
        return vmdkFileReferenceToURI(folder, reference) == file.toNormalized();
    } catch (yx::CError& error) {
        // A name such as "a:5%" reads as a URI, and as one that is wrong.
        error.nop();
        return false;
    }
}

yx::String makeFileReference(yx::CURI const& folder, yx::CURI const& file) {
    yx::CURI const target = file.toNormalized();
    std::vector<wxString> const from = splitPath(folder.toNormalized());
    std::vector<wxString> const to = splitPath(target);
    size_t common = 0;
    while (common < from.size() && common + 1 < to.size() && from[common] == to[common])
        ++common;

    std::optional<yx::String> const relative = relativePath(from, to, common);
    // A quote would end the value. What else a path may hold that its reader takes for a sign of
    // something else, only the reader knows.
    bool const storable = relative && relative->wx().find_first_of("\"\n\r") == wxString::npos;
    return storable && isReferenceTo(folder, *relative, target) ? *relative : target.toString(true);
}

} // namespace kelm::host
