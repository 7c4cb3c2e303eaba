#include "host/store/folder_files.h"

#include <algorithm>
#include <filesystem>
#include <optional>

#include "host/store/file_names.h"
#include "host/system/file_descriptor.h"
#include "yx/error.h"

namespace kelm::host {

namespace fs = std::filesystem;

namespace {

/// Nothing for what is no regular file, is gone by now, or has no name that a disk can have.
std::optional<yx::CURI> tryNameFile(fs::directory_entry const& entry) {
    std::error_code error;
    if (!entry.is_regular_file(error))
        return std::nullopt;
    try {
        return uriFromArgument(entry.path().string());
    } catch (yx::CIOError const& refusal) {
        refusal.nop();
        return std::nullopt;
    }
}

} // namespace

std::vector<yx::CURI> listFilesBelow(yx::CURI const& folder) {
    std::string const path = yx::toNativePath(folder).toStdString();
    std::error_code error;
    fs::recursive_directory_iterator entries(path, error);
    if (error) {
        errno = error.value();
        throwSystemError("Cannot list the folder", path);
    }
    std::vector<yx::CURI> files;
    constexpr auto kLenient = fs::directory_options::skip_permission_denied;
    entries = fs::recursive_directory_iterator(path, kLenient, error);
    for (; entries != fs::recursive_directory_iterator(); entries.increment(error)) {
        if (error)
            break;
        if (std::optional<yx::CURI> file = tryNameFile(*entries))
            files.push_back(*std::move(file));
    }
    std::sort(files.begin(), files.end());
    files.erase(std::unique(files.begin(), files.end()), files.end());
    return files;
}

} // namespace kelm::host
