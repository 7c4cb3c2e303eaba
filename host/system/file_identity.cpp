#include "host/system/file_identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace kelm::host {

namespace {

std::optional<FileIdentity> identifyAt(int fileDescriptor, char const* path, int flags) {
    struct statx status = {};
    if (::statx(fileDescriptor, path, flags, getIdentityMask(), &status) != 0)
        return std::nullopt;
    return toIdentity(status);
}

} // namespace

std::optional<FileIdentity> identifyFile(std::string const& path) {
    return identifyAt(AT_FDCWD, path.c_str(), 0);
}

std::optional<FileIdentity> identifyFile(int fileDescriptor) {
    return identifyAt(fileDescriptor, "", AT_EMPTY_PATH);
}

unsigned int getIdentityMask() {
    return STATX_INO | STATX_BTIME;
}

FileIdentity toIdentity(struct statx const& status) {
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
