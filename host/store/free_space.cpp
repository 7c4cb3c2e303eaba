#include "host/store/free_space.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include "yx/native_file_system.h"

namespace kelm::host {

std::optional<__int64> getFreeBytes(yx::CURI const& folder) {
    struct statvfs status = {};
    if (folder.getScheme() != "file" ||
        ::statvfs(yx::toNativePath(folder).toStdString().c_str(), &status) != 0)
        return std::nullopt;
    // The system's administrator may use up what is kept back from others.
    auto const blocks = ::geteuid() == 0 ? status.f_bfree : status.f_bavail;
    return static_cast<__int64>(blocks) * static_cast<__int64>(status.f_frsize);
}

} // namespace kelm::host
