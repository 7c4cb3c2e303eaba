#include "host/store/file_locking.h"

#include <limits>

#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "yx/error.h"
#include "yx/native_file_system.h"

namespace kelm::host {

namespace {

/// A stream, and the lock on its file, which ends first.
class LockedStream : public yx::CBase {
public:
    LockedStream(yx::P<yx::IIOStream> stream, yx::P<yx::IStreamLock> lock)
        : m_stream(std::move(stream)), m_lock(std::move(lock)) {}

private:
    yx::P<yx::IIOStream> m_stream;
    yx::P<yx::IStreamLock> m_lock;
};

} // namespace

std::optional<FileLock> tryLockFile(yx::CURI const& uri, FileLock::Type type) {
    if (uri.getScheme() == "file")
        return FileLock::tryTake(yx::toNativePath(uri).toStdString(), type);
    IStore* const store = findStore(uri);
    if (!store)
        return FileLock();
    unsigned int options = yx::IFileSystem::DoNotMakeFile;
    auto const access =
        type == FileLock::Type::Exclusive ? yx::IIOStream::ReadWrite : yx::IIOStream::ReadOnly;
    return tryLockStream(store->openFile(uri, access, &options), type);
}

std::optional<FileLock> tryLockStream(yx::P<yx::IIOStream> const& stream, FileLock::Type type) {
    std::optional<FileIdentity> file = identifyStream(*stream);
    if (!file)
        return FileLock();
    auto const wanted =
        type == FileLock::Type::Exclusive ? yx::IStreamBase::Exclusive : yx::IStreamBase::Shared;
    try {
        // As the locks of the operating system, beyond the end, wherever that will be.
        yx::P<yx::IStreamLock> lock =
            stream->lockRange(0, std::numeric_limits<__int64>::max(), wanted);
        return FileLock::hold(yx::makeObject<LockedStream>(stream, std::move(lock)),
                              *std::move(file));
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() == yx::CIOError::AccessDenied)
            return std::nullopt;
        if (error.getIOCode() == yx::CIOError::NotSupported)
            return FileLock();
        throw;
    } catch (yx::CFileSystemError const& error) {
        // A store without locks.
        error.nop();
        return FileLock();
    }
}

} // namespace kelm::host
