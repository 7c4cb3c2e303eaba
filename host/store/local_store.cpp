#include "host/store/local_store.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <string>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include "host/store/file_exists.h"
#include "host/store/local_names.h"
#include "host/system/file_descriptor.h"
#include "yx/error.h"
#include "yx/native_file_system.h"
#include "yx/native_stream.h"

namespace kelm::host {

namespace {

namespace fs = std::filesystem;

std::string localPathOf(yx::CURI const& uri) {
    return yx::toNativePath(uri).toStdString();
}

std::string localFolderPathOf(yx::CURI const& folder) {
    std::string path = localPathOf(folder);
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

FileKind toFileKind(unsigned int mode) {
    if (S_ISREG(mode))
        return FileKind::File;
    if (S_ISDIR(mode))
        return FileKind::Folder;
    return S_ISLNK(mode) ? FileKind::Link : FileKind::Other;
}

FileKind toFileKind(fs::file_type type) {
    switch (type) {
    case fs::file_type::regular:
        return FileKind::File;
    case fs::file_type::directory:
        return FileKind::Folder;
    case fs::file_type::symlink:
        return FileKind::Link;
    default:
        return FileKind::Other;
    }
}

std::optional<FileStatus> findStatusAt(int fileDescriptor, char const* path, int flags) {
    constexpr __int64 kNanosecondsPerSecond = 1'000'000'000;
    constexpr __int64 kBlockBytes = 512;
    unsigned int const mask = getIdentityMask() | STATX_BASIC_STATS;
    struct statx status = {};
    if (::statx(fileDescriptor, path, flags, mask, &status) != 0)
        return std::nullopt;
    FileStatus result;
    result.kind = toFileKind(status.stx_mode);
    result.lengthBytes = static_cast<__int64>(status.stx_size);
    result.allocatedBytes = static_cast<__int64>(status.stx_blocks) * kBlockBytes;
    result.modifiedNanoseconds =
        status.stx_mtime.tv_sec * kNanosecondsPerSecond + status.stx_mtime.tv_nsec;
    result.identity = toIdentity(status);
    return result;
}

/// Whether it was done; if not, `errno` says why.
bool tryRenameIfAbsent(std::string const& from, std::string const& to) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    // Not every file system can do that in one step.
    bool const mayBeUnknown = errno == EINVAL || errno == ENOSYS;
    return mayBeUnknown && ::link(from.c_str(), to.c_str()) == 0 && ::unlink(from.c_str()) == 0;
}

/// Whether the system has said that a file cannot have a second name here.
bool isWithoutSecondName(int error) {
    return error == EXDEV || error == EPERM || error == EOPNOTSUPP || error == ENOSYS ||
           error == EMLINK;
}

} // namespace

LocalStore::LocalStore() : m_files(yx::makeObject<yx::CNativeFileSystem>()) {}

yx::P<yx::IIOStream> LocalStore::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                          unsigned int* options) {
    return m_files->openFile(uri, access, options);
}

bool LocalStore::fileExists(yx::CURI const& uri) {
    return m_files->fileExists(uri);
}

void LocalStore::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    m_files->deleteFile(uri, ignoreMissing);
}

yx::CURI LocalStore::resolveName(yx::CURI const& uri) {
    return resolveLocalName(yx::toNativePath(uri));
}

std::optional<FileStatus> LocalStore::findStatus(yx::CURI const& uri, bool followLinks) {
    return findStatusAt(AT_FDCWD, localPathOf(uri).c_str(), followLinks ? 0 : AT_SYMLINK_NOFOLLOW);
}

FileStatus LocalStore::getOpenStatus(yx::IStreamBase& stream) {
    auto const* const native = dynamic_cast<yx::INativeStream*>(&stream);
    if (!native)
        throw yx::CInvalidArgError("LocalStore::getOpenStatus",
                                   "The stream is none of the operating system.", yx::CProps());
    std::optional<FileStatus> const status =
        findStatusAt(native->getFileDescriptor(), "", AT_EMPTY_PATH);
    if (!status)
        throw yx::CIOError(yx::CIOError::Closed, "The stream is closed.",
                           yx::CProps().add("uri", stream.getURI().toString(true)), nullptr);
    return *status;
}

std::vector<FolderEntry> LocalStore::listFolder(yx::CURI const& folder) {
    std::string const path = localFolderPathOf(folder);
    std::vector<FolderEntry> entries;
    std::error_code error;
    for (fs::directory_iterator entry(path, error); entry != fs::directory_iterator();
         entry.increment(error)) {
        if (error)
            break;
        std::error_code ignored;
        entries.push_back(
            {entry->path().filename().string(), toFileKind(entry->symlink_status(ignored).type())});
    }
    if (error) {
        errno = error.value();
        throwSystemError("Cannot list the folder", path);
    }
    std::sort(
        entries.begin(), entries.end(),
        [](FolderEntry const& left, FolderEntry const& right) { return left.name < right.name; });
    return entries;
}

yx::P<yx::IIOStream> LocalStore::createFile(yx::CURI const& uri) {
    std::string const path = localPathOf(uri);
    constexpr mode_t kMode = 0666;
    FileDescriptor const file =
        FileDescriptor::own(::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kMode));
    if (!file.isOpen() && errno == EEXIST)
        throwFileExists(uri);
    if (!file.isOpen())
        throwSystemError("Cannot make the file", path);
    unsigned int options = DoNotMakeFile;
    yx::P<yx::IIOStream> stream = m_files->openFile(uri, yx::IIOStream::ReadWrite, &options);
    if (getOpenStatus(*stream).identity != identifyFile(file.get()))
        throw yx::CIOError(yx::CIOError::IOFailure,
                           "The file was replaced by another one while it was being made.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    return stream;
}

void LocalStore::makeFolder(yx::CURI const& folder) {
    constexpr mode_t kMode = 0777;
    std::string const path = localFolderPathOf(folder);
    if (::mkdir(path.c_str(), kMode) != 0)
        throwSystemError("Cannot make the folder", path);
}

void LocalStore::removeFolder(yx::CURI const& folder) {
    std::string const path = localFolderPathOf(folder);
    if (::rmdir(path.c_str()) != 0)
        throwSystemError("Cannot remove the folder", path);
}

void LocalStore::rename(yx::CURI const& from, yx::CURI const& to) {
    std::string const path = localPathOf(from);
    if (::rename(path.c_str(), localPathOf(to).c_str()) != 0)
        throwSystemError("Cannot rename the file", path);
}

void LocalStore::renameIfAbsent(yx::CURI const& from, yx::CURI const& to) {
    std::string const path = localPathOf(from);
    if (tryRenameIfAbsent(path, localPathOf(to)))
        return;
    if (errno == EEXIST)
        throwFileExists(to);
    throwSystemError("Cannot rename the file", path);
}

bool LocalStore::tryAddName(yx::CURI const& from, yx::CURI const& to) {
    std::string const path = localPathOf(from);
    if (::link(path.c_str(), localPathOf(to).c_str()) == 0)
        return true;
    if (isWithoutSecondName(errno))
        return false;
    if (errno == EEXIST)
        throwFileExists(to);
    throwSystemError("Cannot give the file another name", path);
}

void LocalStore::copyRights(yx::CURI const& from, yx::CURI const& to) {
    std::string const path = localPathOf(to);
    struct stat status = {};
    if (::stat(localPathOf(from).c_str(), &status) != 0)
        throwSystemError("Cannot look at the file", localPathOf(from));
    constexpr mode_t kRights = 07777;
    if (::chown(path.c_str(), status.st_uid, status.st_gid) != 0 && errno != EPERM)
        throwSystemError("Cannot change the owner of the file", path);
    if (::chmod(path.c_str(), status.st_mode & kRights) != 0)
        throwSystemError("Cannot change the rights of the file", path);
}

void LocalStore::syncFolder(yx::CURI const& folder) {
    std::string const path = localFolderPathOf(folder);
    FileDescriptor const descriptor =
        FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (descriptor.isOpen() && ::fsync(descriptor.get()) != 0)
        throwSystemError("Cannot sync the folder", path);
}

void LocalStore::verifyMayWriteIn(yx::CURI const& folder) {
    std::string const path = localFolderPathOf(folder);
    // By the rights that opening a file goes by, which are not those of who started the program.
    if (::faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) == 0)
        return;
    if (errno == EACCES || errno == EROFS)
        throwSystemError("Cannot write to the folder", path);
}

std::optional<StoreRoom> LocalStore::findRoom(yx::CURI const& folder) {
    struct statvfs status = {};
    if (::statvfs(localPathOf(folder).c_str(), &status) != 0)
        return std::nullopt;
    // The system's administrator may use up what is kept back from others.
    auto const freeBlocks =
        static_cast<__int64>(::geteuid() == 0 ? status.f_bfree : status.f_bavail);
    auto const totalBlocks = static_cast<__int64>(status.f_blocks);
    auto const blockBytes = static_cast<__int64>(status.f_frsize);
    return StoreRoom{totalBlocks * blockBytes, freeBlocks * blockBytes};
}

__int64 LocalStore::getMaxFileLengthBytes(yx::CURI const&) {
    return std::numeric_limits<__int64>::max();
}

} // namespace kelm::host
