#pragma once

#include <vector>

#include "host/backups/durable_files.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Deletes what a program that was killed while it made a disk has left, if that is no disk yet: a
/// main file that is empty or sealed (`isSealedFile`), extents of the disk by their names
/// (`isExtentName`), digests, and the lock file. The main file may be missing. A deletion of the
/// disk that was ended (`DiskNote`) goes on. Returns the names of the files that went; whoever is
/// killed, or fails, goes on by the same call.
///
/// A file of such a name that is no extent (`verifyIsBareExtent`), or another disk's, stays.
///
/// Errors, apart from those of the files, each with "uri": a main file that is a disk, or anything
/// else but what is said above, is `yx::CIOError` `NotAllowed` "The file is no remains of a disk
/// that was being made."; a disk that is being renamed or copied, `NotAllowed` in the words of
/// `DiskNote::describe`; nothing that is left, `NotFound` "The disk does not exist."; what somebody
/// is still making, or uses, `yx::CLockFileError`. All of these leave every file, a lock file of
/// nobody aside.
///
/// `fileSystem` is a `FileSystems`, `mainFile` is a name that `uriFromArgument` made.
std::vector<yx::CURI> deleteDiskRemains(yx::IFileSystem* fileSystem, DurableFiles& steps,
                                        yx::CURI const& mainFile);

} // namespace kelm::host
