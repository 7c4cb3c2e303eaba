#include "host/disk/file_locks.h"

#include <cerrno>

#include <fcntl.h>

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
    if (!file.isOpen() && errno == EEXIST) {
        throw yx::CIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    if (!file.isOpen())
        throwSystemError("Cannot make the file", path);
    return file;
}

} // namespace

bool FileLocks::take(yx::CURI const& uri, FileLock::Type type) {
    if (uri.getScheme() != "file")
        return false;
    std::string const path = yx::toNativePath(uri).toStdString();
    std::optional<FileIdentity> const file = identifyFile(path);
    // Whoever looks after files that were made says what became of a name.
    if (file ? find(*file) != nullptr : m_made.count(uri.toNormalized()) != 0)
        return true;
    std::optional<FileLock> lock = FileLock::tryTake(path, type);
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
    std::string const path = yx::toNativePath(uri).toStdString();
    FileDescriptor file = makeNewFile(uri, path);
    std::optional<FileIdentity> const made = identifyFile(file.get());
    if (!made)
        throwSystemError("Cannot look at the file", path);
    std::optional<FileLock> lock = FileLock::tryTake(std::move(file), FileLock::Type::Exclusive);
    if (!lock)
        throwFileInUse(uri);
    if (keep(std::move(*lock)))
        m_made.insert(uri.toNormalized());
    return *made;
}

void FileLocks::verifyIsFree(yx::CURI const& uri) {
    if (uri.getScheme() != "file")
        return;
    std::string const path = yx::toNativePath(uri).toStdString();
    std::optional<FileIdentity> const file = identifyFile(path);
    if (!file || find(*file))
        return;
    try {
        if (!FileLock::tryTake(path, FileLock::Type::Exclusive))
            throwFileInUse(uri);
    } catch (yx::CIOError const&) {
        // Not to be opened; who deletes it needs rights on the folder alone.
    }
}

} // namespace kelm::host
