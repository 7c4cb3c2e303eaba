#pragma once

#include "kelm/kelm.h"
#include "yx/lock_file.h"

namespace kelm::host {

/// A reader's lock on a disk that is about to be opened; null where it cannot be had although
/// nobody holds it, as on read-only media. A disk that somebody writes to is `yx::CLockFileError`.
///
/// A disk that is opened for reading goes on without a lock if there is no lock file, also when the
/// lock was refused and its holder took the file away only then. The next writer would not notice
/// such a reader.
yx::P<yx::CLockFile> takeReaderLock(yx::IFileSystem* fileSystem, yx::CURI const& uri);

/// Opens a disk that exists; one that does not is `CIOError` `NotFound`, also for writing, which
/// would make the main file. A disk opened for reading keeps at most `readCacheLimit` grain tables,
/// one opened for writing all. A disk that a writer is closing is refused to a reader.
yx::P<CVMDKDisk> openLockedDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                yx::IIOStream::Access access, yx::String const& password,
                                int compressionLevel, int readCacheLimit);

/// Whether a file is a lock file by its name.
bool isLockFile(yx::CURI const& uri);

/// Throws `CLockFileError` for a disk that is in use, and so must not be replaced. A disk that does
/// not exist is not in use.
void verifyIsNotInUse(yx::IFileSystem* fileSystem, yx::CURI const& uri);

} // namespace kelm::host
