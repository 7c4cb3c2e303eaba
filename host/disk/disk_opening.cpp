#include "host/disk/disk_opening.h"

namespace kelm::host {

yx::P<yx::CLockFile> takeReaderLock(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    try {
        return yx::makeObject<yx::CLockFile>(fileSystem, CVMDKDisk::getLockFileURI(uri),
                                             yx::CLockFile::Shared, false, true);
    } catch (yx::CLockFileError const& error) {
        if (!error.getMessage().wx().StartsWith(yx::kLockNotTakenMessagePrefix))
            throw;
        return nullptr;
    }
}

bool isLockFile(yx::CURI const& uri) {
    return uri.getExtension() == kLockFileExtension;
}

yx::P<CVMDKDisk> openLockedDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                yx::IIOStream::Access access, yx::String const& password,
                                int compressionLevel, int readCacheLimit) {
    // Opening for writing would make the main file.
    if (!fileSystem->fileExists(uri)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    yx::P<CVMDKGrainTableCache> const cache = yx::makeObject<CVMDKGrainTableCache>(
        access == yx::IIOStream::ReadWrite ? CVMDKGrainTableCache::kNoLimit : readCacheLimit);
    yx::P<yx::CLockFile> lock;
    // A disk that is opened for reading goes on without a lock if there is no lock file, also when
    // the lock was refused and its holder took the file away only then. The next writer would not
    // notice such a reader.
    if (access == yx::IIOStream::ReadOnly)
        lock = takeReaderLock(fileSystem, uri);
    return yx::makeObject<CVMDKDisk>(fileSystem, uri, access, password, compressionLevel,
                                     cache.get(), nullptr, lock.get());
}

void verifyIsNotInUse(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    if (!fileSystem->fileExists(uri))
        return;
    yx::CLockFile const lock(fileSystem, CVMDKDisk::getLockFileURI(uri), yx::CLockFile::Exclusive,
                             false, true);
}

} // namespace kelm::host
