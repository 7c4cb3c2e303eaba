#include "host/store/folder_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"

namespace kelm::host {

void syncFolder(std::string const& path) {
    FileDescriptor const descriptor =
        FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor.isOpen() && ::fsync(descriptor.get()) != 0)
        throwSystemError("Cannot sync the folder", path);
}

} // namespace kelm::host
