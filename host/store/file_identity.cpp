#include "host/store/file_identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace kelm::host {

std::optional<FileIdentity> identifyFile(yx::CURI const& uri) {
    if (uri.getScheme() != "file")
        return std::nullopt;
    struct statx status = {};
    if (::statx(AT_FDCWD, yx::toNativePath(uri).toStdString().c_str(), 0, STATX_INO | STATX_BTIME,
                &status) != 0)
        return std::nullopt;
    FileIdentity identity;
    identity.device = ::makedev(status.stx_dev_major, status.stx_dev_minor);
    identity.inode = status.stx_ino;
    if ((status.stx_mask & STATX_BTIME) != 0) {
        identity.birthSeconds = status.stx_btime.tv_sec;
        identity.birthNanoseconds = status.stx_btime.tv_nsec;
    }
    return identity;
}

} // namespace kelm::host
