#pragma once

#include <optional>

#include "host/system/file_lock.h"
#include "yx/stream.h"

namespace kelm::host {

/// `FileLock::tryTake` for the file of any store: the whole file, for those who ask. Nothing if
/// another holder is in the way, and a lock that holds nothing where the store has no locks or the
/// URI no store. A file that cannot be opened, for writing too if the lock is exclusive, is what
/// the store says of it.
std::optional<FileLock> tryLockFile(yx::CURI const& uri, FileLock::Type type);

/// The same for a file of a store that is open, for writing too if the lock is exclusive. The
/// stream stays open as long as the lock. Not for streams of the operating system.
std::optional<FileLock> tryLockStream(yx::P<yx::IIOStream> const& stream, FileLock::Type type);

} // namespace kelm::host
