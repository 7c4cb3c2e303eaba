#include "integrations/cephfs/ceph_file_system.h"

#include <algorithm>
#include <cerrno>

#include <cephfs/libcephfs.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "integrations/cephfs/ceph_file_stream.h"
#include "integrations/cephfs/cluster_error.h"
#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::ceph {

namespace {

using yx::detail::FileAction;
using yx::detail::makeUriProps;

constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kNewFolderMode = 0777;
constexpr unsigned int kWantedOfStatus =
    CEPH_STATX_MODE | CEPH_STATX_SIZE | CEPH_STATX_MTIME | CEPH_STATX_INO;

/// Why a file of this kind cannot be a stream with positions, as a negative `errno` value; 0 if it
/// can.
int getRefusalOf(mode_t mode) {
    if (S_ISDIR(mode))
        return -EISDIR;
    return S_ISREG(mode) ? 0 : -ESPIPE;
}

/// Whether a name has no file, also because no file could have it.
bool isMissingResult(int result) {
    return result == -ENOENT || result == -ENOTDIR || result == -ENAMETOOLONG;
}

IClusterFiles::FileKind toKind(mode_t mode) {
    if (S_ISREG(mode))
        return IClusterFiles::FileKind::File;
    if (S_ISDIR(mode))
        return IClusterFiles::FileKind::Folder;
    return S_ISLNK(mode) ? IClusterFiles::FileKind::Link : IClusterFiles::FileKind::Other;
}

IClusterFiles::FileStatus toStatus(CephMount const& mount, struct ceph_statx const& status) {
    constexpr __int64 kNanosecondsOfSecond = 1000000000;
    IClusterFiles::FileStatus result;
    result.kind = toKind(status.stx_mode);
    result.lengthBytes = static_cast<__int64>(status.stx_size);
    result.modifiedNanoseconds =
        status.stx_mtime.tv_sec * kNanosecondsOfSecond + status.stx_mtime.tv_nsec;
    result.identity = {mount.getClusterID(), mount.getFileSystemNumber(), status.stx_ino,
                       status.stx_dev};
    return result;
}

/// `action` is a `FileAction`, or how the message begins.
template <class Action>
void require(int result, Action action, yx::CURI const& uri) {
    if (result < 0)
        throw makeClusterError(action, result, makeUriProps(uri));
}

/// Closes a folder that was opened for listing.
class OpenFolder {
public:
    OpenFolder(ceph_mount_info* client, char const* path) : m_client(client) {
        m_result = ceph_opendir(client, path, &m_folder);
    }
    OpenFolder(OpenFolder const&) = delete;
    OpenFolder& operator=(OpenFolder const&) = delete;
    ~OpenFolder() {
        if (m_folder)
            ceph_closedir(m_client, m_folder);
    }

    /// 0 or a negative `errno` value.
    int getResult() const { return m_result; }

    /// 1 for an entry, 0 at the end, or a negative `errno` value.
    int next(struct dirent& entry, struct ceph_statx& status) {
        return ceph_readdirplus_r(m_client, m_folder, &entry, &status, CEPH_STATX_MODE,
                                  AT_STATX_DONT_SYNC, nullptr);
    }

private:
    ceph_mount_info* m_client;
    ceph_dir_result* m_folder = nullptr;
    int m_result;
};

} // namespace

yx::P<yx::IIOStream> CCephFileSystem::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                               unsigned int* options) {
    bool const followsLinks = !options || (*options & DoNotFollowLink) == 0;
    bool const makesFile = !options || (*options & DoNotMakeFile) == 0;
    return open(
        uri, access,
        (access == yx::IIOStream::ReadWrite ? O_RDWR | (makesFile ? O_CREAT : 0) : O_RDONLY) |
            (followsLinks ? 0 : O_NOFOLLOW));
}

yx::P<yx::IIOStream> CCephFileSystem::createFile(yx::CURI const& uri) {
    return open(uri, yx::IIOStream::ReadWrite, O_RDWR | O_CREAT | O_EXCL);
}

yx::P<yx::IIOStream> CCephFileSystem::open(yx::CURI const& uri, yx::IIOStream::Access access,
                                           int flags) {
    CephLocation const location = locate(uri);
    // The client would leave the separator out and make a file.
    if (location.endsInSeparator())
        require(-EISDIR, FileAction::Open, uri);
    Target const target = reach(location, uri);
    int const descriptor = ceph_open(target.client, target.path.c_str(), flags, kNewFileMode);
    if (descriptor == -ELOOP && (flags & O_NOFOLLOW) != 0 &&
        getStatus(uri, false).kind == FileKind::Link)
        throw yx::CIOError(yx::CIOError::NotAllowed, "The file is a symbolic link.",
                           makeUriProps(uri), nullptr);
    require(descriptor, FileAction::Open, uri);
    auto file =
        std::make_shared<CephFile>(target.mount, descriptor, access == yx::IIOStream::ReadWrite);
    struct ceph_statx status {};
    require(file->query(target.client, status, CEPH_STATX_MODE | CEPH_STATX_SIZE), FileAction::Open,
            uri);
    require(getRefusalOf(status.stx_mode), FileAction::Open, uri);
    return yx::makeObject<CCephFileStream>(std::move(file), uri, access, status.stx_size == 0);
}

bool CCephFileSystem::fileExists(yx::CURI const& uri) {
    CephLocation const location = locate(uri);
    if (location.endsInSeparator())
        return false;
    Target const target = reach(location, uri);
    struct ceph_statx status {};
    int const result = ceph_statx(target.client, target.path.c_str(), &status, CEPH_STATX_MODE, 0);
    if (isMissingResult(result))
        return false;
    require(result, FileAction::Query, uri);
    return !S_ISDIR(status.stx_mode);
}

void CCephFileSystem::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    CephLocation const location = locate(uri);
    if (location.endsInSeparator())
        require(-EISDIR, FileAction::Delete, uri);
    Target const target = reach(location, uri);
    int const result = ceph_unlink(target.client, target.path.c_str());
    if (!ignoreMissing || !isMissingResult(result))
        require(result, FileAction::Delete, uri);
}

IClusterFiles::FileStatus CCephFileSystem::getStatus(yx::CURI const& uri, bool followLinks) {
    Target const target = reach(uri);
    struct ceph_statx status {};
    require(ceph_statx(target.client, target.path.c_str(), &status, kWantedOfStatus,
                       followLinks ? 0 : AT_SYMLINK_NOFOLLOW),
            FileAction::Query, uri);
    return toStatus(*target.mount, status);
}

IClusterFiles::FileStatus CCephFileSystem::getOpenStatus(yx::IStreamBase& stream) {
    auto const* const own = dynamic_cast<CCephFileStream const*>(&stream);
    if (!own)
        throw yx::CInvalidArgError("CCephFileSystem::getOpenStatus",
                                   "The stream is none of a cluster.", yx::CProps());
    yx::CURI const uri = stream.getURI();
    CephFile const* const file = own->getFile();
    if (!file)
        yx::detail::throwStreamClosed(uri);
    struct ceph_statx status {};
    require(file->query(file->getMount().use(uri), status, kWantedOfStatus), FileAction::Query,
            uri);
    return toStatus(file->getMount(), status);
}

std::vector<IClusterFiles::FolderEntry> CCephFileSystem::listFolder(yx::CURI const& uri) {
    Target const target = reach(uri);
    OpenFolder folder(target.client, target.path.c_str());
    require(folder.getResult(), FileAction::Query, uri);
    std::vector<FolderEntry> entries;
    struct dirent entry {};
    struct ceph_statx status {};
    int result = 0;
    while ((result = folder.next(entry, status)) > 0) {
        std::string const name = entry.d_name;
        if (name != "." && name != "..")
            entries.push_back({name, toKind(status.stx_mode)});
    }
    require(result, FileAction::Query, uri);
    std::ranges::sort(entries, {}, &FolderEntry::name);
    return entries;
}

void CCephFileSystem::makeFolder(yx::CURI const& uri) {
    Target const target = reach(uri);
    require(ceph_mkdir(target.client, target.path.c_str(), kNewFolderMode),
            "Cannot make the folder: ", uri);
}

void CCephFileSystem::removeFolder(yx::CURI const& uri) {
    Target const target = reach(uri);
    require(ceph_rmdir(target.client, target.path.c_str()), "Cannot remove the folder: ", uri);
}

void CCephFileSystem::rename(yx::CURI const& from, yx::CURI const& to) {
    CephLocation const source = locate(from);
    CephLocation const target = locate(to);
    if (source.user != target.user || source.fileSystem != target.fileSystem)
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The two names are not in one file system of one user.",
                           makeUriProps(to), nullptr);
    Target const old = reach(source, from);
    Target const renamed = reach(target, to);
    int const result = ceph_rename(old.client, old.path.c_str(), renamed.path.c_str());
    require(result, "Cannot rename the file: ", from);
}

void CCephFileSystem::syncFolder(yx::CURI const& uri) {
    Target const target = reach(uri);
    int const descriptor = ceph_open(target.client, target.path.c_str(), O_RDONLY | O_DIRECTORY, 0);
    require(descriptor, FileAction::Flush, uri);
    CephFile const folder(target.mount, descriptor, false);
    require(ceph_fsync(target.client, descriptor, 0), FileAction::Flush, uri);
}

IClusterFiles::Room CCephFileSystem::getRoom(yx::CURI const& uri) {
    Target const target = reach(uri);
    struct statvfs room {};
    require(ceph_statfs(target.client, target.path.c_str(), &room), FileAction::Query, uri);
    auto const blockBytes = static_cast<__int64>(room.f_frsize);
    return {static_cast<__int64>(room.f_blocks) * blockBytes,
            static_cast<__int64>(room.f_bavail) * blockBytes};
}

__int64 CCephFileSystem::getMaxFileLengthBytes(yx::CURI const& uri) {
    return mountOf(locate(uri), uri)->getMaxFileLengthBytes(uri);
}

CCephFileSystem::Target CCephFileSystem::reach(yx::CURI const& uri) {
    return reach(locate(uri), uri);
}

CCephFileSystem::Target CCephFileSystem::reach(CephLocation const& location, yx::CURI const& uri) {
    std::shared_ptr<CephMount> const mount = mountOf(location, uri);
    return {mount, mount->use(uri), mount->toClientPath(location.path, uri)};
}

std::shared_ptr<CephMount> CCephFileSystem::mountOf(CephLocation const& location,
                                                    yx::CURI const& uri) {
    // Two threads that come first share one connection.
    std::lock_guard const guard(m_mutex);
    std::shared_ptr<CephMount>& mount = m_mounts[{location.user, location.fileSystem}];
    if (!mount)
        mount = std::make_shared<CephMount>(location, uri);
    return mount;
}

} // namespace kelm::ceph
