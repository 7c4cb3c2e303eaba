#include "host/disk/file_locks.h"

#include <cerrno>

#include <fcntl.h>

#include "host/store/file_exists.h"
#include "host/store/file_locking.h"
#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "host/system/file_descriptor.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

[[noreturn]] void throwFileInUse(yx::CURI const& uri) {
    throw yx::CLockFileError(kFileInUseMessage, yx::CProps().add("uri", uri.toString(true)),
                             nullptr);
}

FileDescriptor makeNewFile(yx::CURI const& uri, std::string const& path) {
    constexpr mode_t kMode = 0666;
    FileDescriptor file =
        FileDescriptor::own(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    if (!file.isOpen() && errno == EEXIST)
        throwFileExists(uri);
    if (!file.isOpen())
        throwSystemError("Cannot make the file", path);
    return file;
}

/// A file that was made just now. The lock is missing if another program was quicker.
struct NewFile {
    FileIdentity identity;
    std::optional<FileLock> lock;
};

NewFile makeLockedLocalFile(yx::CURI const& uri) {
    std::string const path = yx::toNativePath(uri).toStdString();
    FileDescriptor file = makeNewFile(uri, path);
    std::optional<FileIdentity> const made = identifyFile(file.get());
    if (!made)
        throwSystemError("Cannot look at the file", path);
    return {*made, FileLock::tryTake(std::move(file), FileLock::Type::Exclusive)};
}

NewFile makeLockedFile(yx::CURI const& uri) {
    if (uri.getScheme() == "file")
        return makeLockedLocalFile(uri);
    IStore& store = storeOf(uri);
    yx::P<yx::IIOStream> const stream = store.createFile(uri);
    return {store.getOpenStatus(*stream).identity,
            tryLockStream(stream, FileLock::Type::Exclusive)};
}

} // namespace

bool FileLocks::take(yx::CURI const& uri, FileLock::Type type) {
    std::optional<FileIdentity> const file = identifyFile(uri);
    // Whoever looks after files that were made says what became of a name.
    if (file ? find(*file) != nullptr : m_made.count(uri.toNormalized()) != 0)
        return true;
    std::optional<FileLock> lock = tryLockFile(uri, type);
    if (!lock)
        throwFileInUse(uri);
    return keep(std::move(*lock));
}

bool FileLocks::take(yx::CURI const& uri, yx::P<SharedOpenFile> const& file, FileLock::Type type) {
    bool const isFirst = !m_sole && m_locks.empty();
    if (!isFirst) {
        std::optional<FileIdentity> const identity = identifyFile(file->getFileDescriptor());
        if (identity && find(*identity))
            return true;
    }
    std::optional<FileLock> lock = FileLock::tryTake(file, type);
    if (!lock)
        throwFileInUse(uri);
    if (!isFirst || !lock->isHeld())
        return keep(std::move(*lock));
    m_sole = std::move(lock);
    return true;
}

bool FileLocks::take(yx::CURI const& uri, yx::P<yx::IIOStream> const& stream, FileLock::Type type) {
    std::optional<FileIdentity> const identity = identifyStream(*stream);
    if (identity && find(*identity))
        return true;
    std::optional<FileLock> lock = tryLockStream(stream, type);
    if (!lock)
        throwFileInUse(uri);
    return keep(std::move(*lock));
}

bool FileLocks::keep(FileLock lock) {
    if (!lock.isHeld())
        return false;
    identifySole();
    FileIdentity const file = lock.getFile();
    m_locks.insert_or_assign(file, std::move(lock));
    return true;
}

/// Null if there is no lock on it.
FileLock const* FileLocks::find(FileIdentity const& file) {
    identifySole();
    auto const held = m_locks.find(file);
    return held == m_locks.end() ? nullptr : &held->second;
}

void FileLocks::identifySole() {
    if (!m_sole)
        return;
    FileLock lock = std::move(*m_sole);
    m_sole.reset();
    FileIdentity const file = lock.getFile();
    m_locks.insert_or_assign(file, std::move(lock));
}

FileIdentity FileLocks::makeFile(yx::CURI const& uri) {
    NewFile made = makeLockedFile(uri);
    if (!made.lock)
        throwFileInUse(uri);
    if (keep(std::move(*made.lock)))
        m_made.insert(uri.toNormalized());
    return made.identity;
}

void FileLocks::verifyIsFree(yx::CURI const& uri) {
    std::optional<FileIdentity> const file = identifyFile(uri);
    if (!file || find(*file))
        return;
    try {
        if (!tryLockFile(uri, FileLock::Type::Exclusive))
            throwFileInUse(uri);
    } catch (yx::CIOError const& error) {
        // Not to be opened; who deletes it needs rights on the folder alone.
        error.nop();
    }
}

} // namespace kelm::host
