#include "yx/lock_file.h"

#include <cassert>
#include <chrono>
#include <thread>

#include "yx/internal/open_lock_file.h"
#include "yx/internal/stream_error.h"
#include "yx/log.h"

namespace yx {

namespace {

/// How long to wait for somebody who removes the file. It takes a few calls of the file system, so
/// nobody waits that long unless the one who does it is stopped in the middle.
constexpr std::chrono::milliseconds kMaxRemovalTime{500};

/// How often to look at least, whatever the clock says: this process may have stood still, or the
/// file may be far away.
constexpr int kLeastLooks = 10;

bool isLockingUnsupported(CError const& error) {
    if (auto const* const ioError = dynamic_cast<CIOError const*>(&error))
        return ioError->getIOCode() == CIOError::NotSupported;
    auto const* const fileSystemError = dynamic_cast<CFileSystemError const*>(&error);
    return fileSystemError &&
           fileSystemError->getProblem() == CFileSystemError::LockingNotSupported;
}

/// For cleaning up after a failure: the caller gets that failure, not one of the cleaning up.
template <class Action>
void tryTo(Action const& action) {
    try {
        action();
    } catch (CError const& error) {
        error.nop();
    }
}

/// As `OpenLockFile::tryEnter`. Where nobody can lock, a file that was made for this would only keep
/// readers from going on without one, and is removed.
bool tryEnter(detail::OpenLockFile& file, CLockFile::LockType type, bool existed) {
    try {
        return file.tryEnter(type == CLockFile::Exclusive ? IStreamBase::Exclusive
                                                          : IStreamBase::Shared);
    } catch (CError const& error) {
        if (!existed && isLockingUnsupported(error))
            tryTo([&file] { file.removeUnlocked(); });
        throw;
    }
}

} // namespace

CLockFile::CLockFile(IFileSystem* fileSystem, CURI const& uri, LockType type, bool keepFile,
                     bool createFile)
    : m_uri(uri), m_keepFile(keepFile) {
    try {
        take(fileSystem, type, createFile);
    } catch (CLockFileError const&) {
        throw;
    } catch (CError const& error) {
        throw CLockFileError(kLockNotTakenMessagePrefix + error.getMessage(),
                             detail::makeUriProps(m_uri), &error);
    }
}

CLockFile::~CLockFile() {
    assert(m_file && "the lock is held as long as the object lives");
    try {
        if (!m_keepFile)
            m_file->removeIfAlone();
    } catch (std::exception& error) {
        onExceptionInDestructorIgnored("yx::CLockFile", error, true);
    }
}

void CLockFile::take(IFileSystem* fileSystem, LockType type, bool createFile) {
    if (createFile) {
        if (P<IIOStream> const made = detail::OpenLockFile::tryMake(*fileSystem, m_uri)) {
            auto file = std::make_unique<detail::OpenLockFile>(fileSystem, m_uri, made);
            if (tryEnter(*file, type, false))
                m_file = std::move(file);
        }
    }
    if (!m_file) {
        bool const existed = fileSystem->fileExists(m_uri);
        if (!existed && !createFile) {
            throw CLockFileError("The lock file does not exist.", detail::makeUriProps(m_uri),
                                 nullptr);
        }
        m_file = enter(fileSystem, type, existed);
    }
    try {
        m_file->lock();
    } catch (CError const& error) {
        // A holder who is leaving may count on the one it saw present to remove the file.
        if (!m_keepFile)
            tryTo([this] { m_file->removeIfAlone(); });
        auto const* const ioError = dynamic_cast<CIOError const*>(&error);
        if (!ioError || ioError->getIOCode() != CIOError::AccessDenied)
            throw;
        throw CLockFileError(kLockFileInUseMessage, detail::makeUriProps(m_uri), &error);
    }
}

std::unique_ptr<detail::OpenLockFile> CLockFile::enter(IFileSystem* fileSystem, LockType type,
                                                       bool existed) const {
    auto const end = std::chrono::steady_clock::now() + kMaxRemovalTime;
    for (int looks = 0; looks < kLeastLooks || std::chrono::steady_clock::now() < end; ++looks) {
        auto file = std::make_unique<detail::OpenLockFile>(fileSystem, m_uri, nullptr);
        if (tryEnter(*file, type, existed)) {
            assert(file->isPresent());
            return file;
        }
        std::this_thread::yield();
    }
    throw CLockFileError(kLockFileIsRemovedMessage, detail::makeUriProps(m_uri), nullptr);
}

} // namespace yx
