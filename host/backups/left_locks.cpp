#include "host/backups/left_locks.h"

#include <string>

#include "host/store/folder_files.h"
#include "kelm/kelm.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

constexpr char kLockSuffix[] = ".lock";
constexpr char kDiskLockSuffix[] = ".vmdk.lock";

} // namespace

void removeLeftLock(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    yx::CURI const lockFile = CVMDKDisk::getLockFileURI(mainFile);
    if (fileSystem->fileExists(mainFile) || !fileSystem->fileExists(lockFile))
        return;
    try {
        // Who leaves as the last one removes it.
        yx::CLockFile const lock(fileSystem, lockFile, yx::CLockFile::Exclusive, false, false);
    } catch (yx::CLockFileError const& error) {
        error.nop();
    }
}

void removeLeftLocks(yx::IFileSystem* fileSystem, std::vector<yx::CURI> const& folders) {
    for (yx::CURI const& folder : folders) {
        for (yx::CURI const& file : listFilesBelow(folder)) {
            std::string const name = file.getName().toStdString();
            if (!name.ends_with(kDiskLockSuffix))
                continue;
            std::string const disk = name.substr(0, name.size() + 1 - sizeof kLockSuffix);
            removeLeftLock(fileSystem,
                           (file.getParent() << yx::String::fromUTF8(disk)).toNormalized());
        }
    }
}

} // namespace kelm::host
