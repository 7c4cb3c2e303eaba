#include "integrations/cephfs/ceph_file_system.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cstdlib>

#include <cephfs/libcephfs.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "integrations/cephfs/ceph_file_stream.h"
#include "integrations/cephfs/ceph_metadata_servers.h"
#include "integrations/cephfs/ceph_path.h"
#include "integrations/cephfs/client_life.h"
#include "integrations/cephfs/cluster_error.h"
#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::ceph {

namespace {

using yx::detail::FileAction;
using yx::detail::makeUriProps;

constexpr mode_t kNewFileMode = 0666;
constexpr mode_t kNewFolderMode = 0777;
constexpr char kCannotRename[] = "Cannot rename the file: ";
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

/// What a call on a path means that has returned `result`: the client looks whether it may search a
/// file before it sees that it is no folder.
int explain(ceph_mount_info* client, std::string path, int result) {
    while (result == -EACCES && path.size() > 1) {
        path.erase(std::max<std::size_t>(path.rfind('/'), 1));
        struct ceph_statx status {};
        int const above = ceph_statx(client, path.c_str(), &status, CEPH_STATX_MODE, 0);
        if (above == 0)
            return S_ISDIR(status.stx_mode) ? result : -ENOTDIR;
        if (above != -EACCES)
            return result;
    }
    return result;
}

host::FileKind toKind(mode_t mode) {
    if (S_ISREG(mode))
        return host::FileKind::File;
    if (S_ISDIR(mode))
        return host::FileKind::Folder;
    return S_ISLNK(mode) ? host::FileKind::Link : host::FileKind::Other;
}

host::FileStatus toStatus(CephMount const& mount, struct ceph_statx const& status) {
    constexpr __int64 kNanosecondsOfSecond = 1000000000;
    // That of what is no snapshot's.
    constexpr std::uint64_t kBranchOfToday = ~std::uint64_t{1};
    host::FileStatus result;
    result.kind = toKind(status.stx_mode);
    result.lengthBytes = static_cast<__int64>(status.stx_size);
    // The client does not know of holes.
    result.allocatedBytes = result.lengthBytes;
    result.modifiedNanoseconds =
        status.stx_mtime.tv_sec * kNanosecondsOfSecond + status.stx_mtime.tv_nsec;
    result.identity.store = mount.getStoreID();
    if (status.stx_dev != kBranchOfToday)
        result.identity.store += "@" + std::to_string(status.stx_dev);
    result.identity.inode = status.stx_ino;
    return result;
}

/// `action` is a `FileAction`, or how the message begins.
template <class Action>
void require(int result, Action action, yx::CURI const& uri) {
    if (result < 0)
        throw makeClusterError(action, result, makeUriProps(uri));
}

[[noreturn]] void throwExists(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::AlreadyExists, "The file exists already.", makeUriProps(uri),
                       nullptr);
}

CephMount::Answer<struct ceph_statx> query(CephMount const& mount, std::string const& path,
                                           unsigned int want, int flags, yx::CURI const& uri) {
    return mount.ask<struct ceph_statx>(
        uri, [=](ceph_mount_info* client, struct ceph_statx& status) {
            int const result =
                ceph_statx(client, path.c_str(), &status, want, static_cast<unsigned int>(flags));
            return explain(client, path, result);
        });
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

int readFolder(ceph_mount_info* client, std::string const& path,
               std::vector<host::FolderEntry>& entries) {
    OpenFolder folder(client, path.c_str());
    if (folder.getResult() < 0)
        return folder.getResult();
    struct dirent entry {};
    struct ceph_statx status {};
    int result = 0;
    while ((result = folder.next(entry, status)) > 0) {
        std::string const name = entry.d_name;
        if (name != "." && name != "..")
            entries.push_back({name, toKind(status.stx_mode)});
    }
    return result;
}

/// What opening a file has told of it.
struct OpenedFile {
    int descriptor = -1;
    struct ceph_statx status {};
};

/// Opens what can be a stream; 0 or a negative `errno` value.
int openAndQuery(ceph_mount_info* client, CephPools& pools, std::string const& path, int flags,
                 OpenedFile& file) {
    int const descriptor = ceph_open(client, path.c_str(), flags, kNewFileMode);
    if (descriptor < 0)
        return explain(client, path, descriptor);
    int result =
        ceph_fstatx(client, descriptor, &file.status, CEPH_STATX_MODE | CEPH_STATX_SIZE, 0);
    if (result == 0)
        result = getRefusalOf(file.status.stx_mode);
    if (result == 0) {
        pools.enter(client, path, descriptor, (flags & O_ACCMODE) != O_RDONLY);
        file.descriptor = descriptor;
    } else {
        ceph_close(client, descriptor);
    }
    return result;
}

/// Gives a link another name, unless that is taken.
int renameLink(ceph_mount_info* client, std::string const& from, std::string const& to) {
    std::array<char, PATH_MAX> content{};
    int const length = ceph_readlink(client, from.c_str(), content.data(), content.size() - 1);
    if (length < 0)
        return length;
    int const result = ceph_symlink(client, content.data(), to.c_str());
    return result < 0 ? result : ceph_unlink(client, from.c_str());
}

/// The same for a file or a link. No call of the client does that at once.
int renameUnlessTaken(ceph_mount_info* client, std::string const& from, std::string const& to) {
    struct ceph_statx status {};
    if (int const result =
            ceph_statx(client, from.c_str(), &status, CEPH_STATX_MODE, AT_SYMLINK_NOFOLLOW);
        result < 0)
        return result;
    if (S_ISLNK(status.stx_mode))
        return renameLink(client, from, to);
    if (S_ISDIR(status.stx_mode))
        return -EOPNOTSUPP;
    if (int const result = ceph_link(client, from.c_str(), to.c_str()); result < 0)
        return result;
    int const result = ceph_unlink(client, from.c_str());
    if (result < 0)
        ceph_unlink(client, to.c_str());
    return result;
}

/// A second name for a file, but not for a link, which the client would follow.
int addName(ceph_mount_info* client, std::string const& from, std::string const& to) {
    struct ceph_statx status {};
    if (int const result =
            ceph_statx(client, from.c_str(), &status, CEPH_STATX_MODE, AT_SYMLINK_NOFOLLOW);
        result < 0)
        return result;
    return S_ISREG(status.stx_mode) ? ceph_link(client, from.c_str(), to.c_str()) : -EOPNOTSUPP;
}

/// Whether there is no second name for this file, or not there.
bool isWithoutSecondName(int result) {
    switch (-result) {
    case EPERM:
    case EMLINK:
    case EXDEV:
    case EISDIR:
    case EOPNOTSUPP:
    case ENOSYS:
        return true;
    default:
        return false;
    }
}

/// Opens a folder for the time of a sync.
int syncOpened(ceph_mount_info* client, std::string const& path) {
    int const descriptor = ceph_open(client, path.c_str(), O_RDONLY | O_DIRECTORY, 0);
    if (descriptor < 0)
        return descriptor;
    int const result = ceph_fsync(client, descriptor, 0);
    ceph_close(client, descriptor);
    return result;
}

/// Gives a file the owner, if this user may, and the mode of another one; 0 or a negative `errno`
/// value.
int giveRights(ceph_mount_info* client, std::string const& from, std::string const& to) {
    constexpr mode_t kRights = 07777;
    struct ceph_statx status {};
    int const result = ceph_statx(client, from.c_str(), &status,
                                  CEPH_STATX_MODE | CEPH_STATX_UID | CEPH_STATX_GID, 0);
    if (result < 0)
        return result;
    int const owned = ceph_chown(client, to.c_str(), static_cast<int>(status.stx_uid),
                                 static_cast<int>(status.stx_gid));
    if (owned < 0 && owned != -EPERM && owned != -EACCES)
        return owned;
    return ceph_chmod(client, to.c_str(), status.stx_mode & kRights);
}

/// Whether files can be made in a folder; 0 or a negative `errno` value.
int tryMakingFile(ceph_mount_info* client, std::string const& folder) {
    static std::atomic<unsigned int> number{0};
    std::string const path = folder + "/.kelm-" + std::to_string(ceph_get_instance_id(client)) +
                             "-" + std::to_string(++number);
    int const descriptor =
        ceph_open(client, path.c_str(), O_WRONLY | O_CREAT | O_EXCL, kNewFileMode);
    if (descriptor < 0)
        return explain(client, path, descriptor);
    ceph_close(client, descriptor);
    return ceph_unlink(client, path.c_str());
}

/// A number that the metadata servers tell as an attribute; 0 where there is none.
__int64 readNumber(ceph_mount_info* client, std::string const& path, char const* attribute) {
    std::array<char, 32> text{};
    int const length = ceph_getxattr(client, path.c_str(), attribute, text.data(), text.size() - 1);
    return length > 0 ? std::strtoll(text.data(), nullptr, 10) : 0;
}

/// The room of a folder, whose path has no links. The client itself knows of the limit of its
/// session's root alone.
int measureRoom(ceph_mount_info* client, std::string path, host::StoreRoom& room) {
    struct statvfs all {};
    if (int const result = ceph_statfs(client, path.c_str(), &all); result < 0)
        return result;
    auto const blockBytes = static_cast<__int64>(all.f_frsize);
    room.totalBytes = static_cast<__int64>(all.f_blocks) * blockBytes;
    room.freeBytes = static_cast<__int64>(all.f_bavail) * blockBytes;
    while (path.size() > 1) {
        if (__int64 const limitBytes = readNumber(client, path, "ceph.quota.max_bytes");
            limitBytes > 0) {
            __int64 const usedBytes = readNumber(client, path, "ceph.dir.rbytes");
            room.totalBytes = std::min(room.totalBytes, limitBytes);
            room.freeBytes = std::min(room.freeBytes, std::max<__int64>(limitBytes - usedBytes, 0));
        }
        path.erase(std::max<std::size_t>(path.rfind('/'), 1));
    }
    return 0;
}

/// Whether the file is a link: only then is this what `O_NOFOLLOW` says.
bool isLink(CephMount const& mount, std::string const& path, yx::CURI const& uri) {
    auto const answer = query(mount, path, CEPH_STATX_MODE, AT_SYMLINK_NOFOLLOW, uri);
    return answer.result == 0 && S_ISLNK(answer.value.stx_mode);
}

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
    // The client would wait for those of them that have the file.
    target.mount->clearAwayTheDead();
    auto const answer = target.mount->ask<OpenedFile>(
        uri, [path = target.path, flags, pools = target.mount->getPools()](ceph_mount_info* client,
                                                                           OpenedFile& file) {
            return openAndQuery(client, *pools, path, flags, file);
        });
    if (answer.result == -EEXIST && (flags & O_EXCL) != 0)
        throwExists(uri);
    if (answer.result == -ELOOP && (flags & O_NOFOLLOW) != 0 &&
        isLink(*target.mount, target.path, uri))
        throw yx::CIOError(yx::CIOError::NotAllowed, "The file is a symbolic link.",
                           makeUriProps(uri), nullptr);
    require(answer.result, FileAction::Open, uri);
    auto file = std::make_shared<CephFile>(target.mount, answer.value.descriptor,
                                           access == yx::IIOStream::ReadWrite);
    return yx::makeObject<CCephFileStream>(std::move(file), uri, access,
                                           answer.value.status.stx_size == 0);
}

bool CCephFileSystem::fileExists(yx::CURI const& uri) {
    std::optional<host::FileStatus> const status = findStatus(uri, true);
    return status && status->kind != host::FileKind::Folder;
}

void CCephFileSystem::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    CephLocation const location = locate(uri);
    if (location.endsInSeparator())
        require(-EISDIR, FileAction::Delete, uri);
    Target const target = reach(location, uri);
    int const result = target.mount->call(uri, [path = target.path](ceph_mount_info* client) {
        return explain(client, path, ceph_unlink(client, path.c_str()));
    });
    if (!ignoreMissing || !isMissingResult(result))
        require(result, FileAction::Delete, uri);
}

yx::CURI CCephFileSystem::resolveName(yx::CURI const& uri) {
    Target const target = reach(uri);
    auto const answer = target.mount->ask<std::string>(
        uri, [path = target.path](ceph_mount_info* client, std::string& resolved) {
            return resolvePath(client, path, resolved);
        });
    // A name that is too long is none, as for those who look for a file.
    require(answer.result == -ENAMETOOLONG ? -ENOENT : answer.result, FileAction::Query, uri);
    return replacePath(uri, target.mount->fromClientPath(answer.value));
}

std::optional<host::FileStatus> CCephFileSystem::findStatus(yx::CURI const& uri, bool followLinks) {
    CephLocation const location = locate(uri);
    Target const target = reach(location, uri);
    auto const answer = query(*target.mount, target.path, kWantedOfStatus,
                              followLinks ? 0 : AT_SYMLINK_NOFOLLOW, uri);
    if (isMissingResult(answer.result))
        return std::nullopt;
    require(answer.result, FileAction::Query, uri);
    host::FileStatus const status = toStatus(*target.mount, answer.value);
    if (!location.endsInSeparator() || status.kind == host::FileKind::Folder)
        return status;
    // Behind a separator a link is what it leads to, and a file is nothing.
    if (status.kind != host::FileKind::Link)
        return std::nullopt;
    return findStatus(uri, true);
}

host::FileStatus CCephFileSystem::getOpenStatus(yx::IStreamBase& stream) {
    auto const* const own = dynamic_cast<CCephFileStream const*>(&stream);
    if (!own)
        throw yx::CInvalidArgError("CCephFileSystem::getOpenStatus",
                                   "The stream is none of a cluster.", yx::CProps());
    yx::CURI const uri = stream.getURI();
    CephFile const* const file = own->getFile();
    if (!file)
        yx::detail::throwStreamClosed(uri);
    auto const answer = file->getMount().ask<struct ceph_statx>(
        uri,
        [descriptor = file->getDescriptor()](ceph_mount_info* client, struct ceph_statx& status) {
            return ceph_fstatx(client, descriptor, &status, kWantedOfStatus, 0);
        });
    require(answer.result, FileAction::Query, uri);
    return toStatus(file->getMount(), answer.value);
}

std::vector<host::FolderEntry> CCephFileSystem::listFolder(yx::CURI const& folder) {
    Target const target = reach(folder);
    auto answer = target.mount->ask<std::vector<host::FolderEntry>>(
        folder,
        [path = target.path](ceph_mount_info* client, std::vector<host::FolderEntry>& entries) {
            return readFolder(client, path, entries);
        });
    require(answer.result, FileAction::Query, folder);
    std::ranges::sort(answer.value, {}, &host::FolderEntry::name);
    return std::move(answer.value);
}

void CCephFileSystem::makeFolder(yx::CURI const& folder) {
    Target const target = reach(folder);
    require(target.mount->call(folder,
                               [path = target.path](ceph_mount_info* client) {
                                   return ceph_mkdir(client, path.c_str(), kNewFolderMode);
                               }),
            "Cannot make the folder: ", folder);
}

void CCephFileSystem::removeFolder(yx::CURI const& folder) {
    Target const target = reach(folder);
    require(target.mount->call(folder,
                               [path = target.path](ceph_mount_info* client) {
                                   return ceph_rmdir(client, path.c_str());
                               }),
            "Cannot remove the folder: ", folder);
}

void CCephFileSystem::rename(yx::CURI const& from, yx::CURI const& to) {
    TwoTargets const both = reachBoth(from, to);
    require(both.from.mount->call(
                from,
                [old = both.from.path, renamed = both.to.path](ceph_mount_info* client) {
                    return ceph_rename(client, old.c_str(), renamed.c_str());
                }),
            kCannotRename, from);
}

void CCephFileSystem::renameIfAbsent(yx::CURI const& from, yx::CURI const& to) {
    TwoTargets const both = reachBoth(from, to);
    int const result = both.from.mount->call(
        from, [old = both.from.path, renamed = both.to.path](ceph_mount_info* client) {
            return renameUnlessTaken(client, old, renamed);
        });
    if (result == -EEXIST)
        throwExists(to);
    require(result, kCannotRename, from);
}

bool CCephFileSystem::tryAddName(yx::CURI const& from, yx::CURI const& to) {
    TwoTargets const both = reachBoth(from, to);
    int const result = both.from.mount->call(
        from, [old = both.from.path, added = both.to.path](ceph_mount_info* client) {
            return addName(client, old, added);
        });
    if (result == -EEXIST)
        throwExists(to);
    if (isWithoutSecondName(result))
        return false;
    require(result, "Cannot give the file a second name: ", from);
    return true;
}

void CCephFileSystem::copyRights(yx::CURI const& from, yx::CURI const& to) {
    TwoTargets const both = reachBoth(from, to);
    int const result = both.from.mount->call(
        from, [old = both.from.path, renamed = both.to.path](ceph_mount_info* client) {
            return giveRights(client, old, renamed);
        });
    require(result, "Cannot change the rights of the file: ", to);
}

void CCephFileSystem::syncFolder(yx::CURI const& folder) {
    Target const target = reach(folder);
    int const result = target.mount->call(
        folder, [path = target.path](ceph_mount_info* client) { return syncOpened(client, path); });
    if (result != -EACCES)
        require(result, FileAction::Flush, folder);
}

void CCephFileSystem::verifyMayWriteIn(yx::CURI const& folder) {
    Target const target = reach(folder);
    int const result = target.mount->call(folder, [path = target.path](ceph_mount_info* client) {
        return tryMakingFile(client, path);
    });
    // Whether there is room is another question.
    if (!isMissingResult(result) && result != -ENOSPC && result != -EDQUOT)
        require(result, "Cannot make files in the folder: ", folder);
}

std::optional<host::StoreRoom> CCephFileSystem::findRoom(yx::CURI const& folder) {
    Target const target = reach(folder);
    auto const answer = target.mount->ask<host::StoreRoom>(
        folder, [path = target.path](ceph_mount_info* client, host::StoreRoom& room) {
            std::string resolved;
            int const result = resolvePath(client, path, resolved);
            return result < 0 ? result : measureRoom(client, resolved, room);
        });
    require(answer.result, FileAction::Query, folder);
    return answer.value;
}

__int64 CCephFileSystem::getMaxFileLengthBytes(yx::CURI const& uri) {
    return mountOf(locate(uri), uri)->getMaxFileLengthBytes(uri);
}

void CCephFileSystem::abandon() noexcept {
    m_calls->abandon();
}

std::vector<host::StoreHolder> CCephFileSystem::findHolders(std::vector<yx::CURI> const& files) {
    if (files.empty())
        return {};
    std::shared_ptr<CephMount> const mount = mountOf(locate(files.front()), files.front());
    mount->clearAwayTheDead();
    CephMetadataServers const servers(*mount, files.front());
    std::map<__int64, std::vector<host::HeldFile>> held;
    for (yx::CURI const& file : files) {
        for (CephFileUse const& use : servers.listFileUses(locate(file).path)) {
            if (!isOwnClient(use.client))
                held[use.client].push_back(
                    {file, use.isOpen, use.isOpenForWriting, use.mayHaveChanges});
        }
    }
    // One that is not listed has gone in the meantime.
    std::vector<host::StoreHolder> holders;
    for (CephClient const& client : servers.listClients()) {
        host::StoreHolder::Life const life = findLifeOf(client);
        auto const found = held.find(client.number);
        if (found != held.end())
            holders.push_back({std::to_string(client.number), client.host, client.user,
                               client.process, client.connectedSeconds, client.isMissed, life,
                               std::move(found->second)});
        else if (life == host::StoreHolder::Life::DiedHere)
            // It may have died while it waited for a file, and would get it yet.
            servers.shutOut(client.number);
    }
    return holders;
}

void CCephFileSystem::shutOut(yx::CURI const& uri, std::string const& number) {
    __int64 client = 0;
    auto const parsed = std::from_chars(number.data(), number.data() + number.size(), client);
    bool const isNumber = parsed.ec == std::errc() && parsed.ptr == number.data() + number.size();
    if (!isNumber || client <= 0 || isOwnClient(client)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "This client is not to be shut out.",
                           makeUriProps(uri), nullptr);
    }
    std::shared_ptr<CephMount> const mount = mountOf(locate(uri), uri);
    CephMetadataServers(*mount, uri).shutOut(client);
}

bool CCephFileSystem::isOwnClient(__int64 number) {
    std::lock_guard const guard(m_mutex);
    return std::any_of(m_mounts.begin(), m_mounts.end(), [number](auto const& entry) {
        return entry.second && entry.second->getNumber() == number;
    });
}

CCephFileSystem::Target CCephFileSystem::reach(yx::CURI const& uri) {
    return reach(locate(uri), uri);
}

CCephFileSystem::Target CCephFileSystem::reach(CephLocation const& location, yx::CURI const& uri) {
    std::shared_ptr<CephMount> const mount = mountOf(location, uri);
    return {mount, mount->toClientPath(location.path, uri)};
}

CCephFileSystem::TwoTargets CCephFileSystem::reachBoth(yx::CURI const& from, yx::CURI const& to) {
    CephLocation const source = locate(from);
    CephLocation const target = locate(to);
    if (source.user != target.user || source.fileSystem != target.fileSystem)
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The two names are not in one file system of one user.",
                           makeUriProps(to), nullptr);
    return {reach(source, from), reach(target, to)};
}

std::shared_ptr<CephMount> CCephFileSystem::mountOf(CephLocation const& location,
                                                    yx::CURI const& uri) {
    // Two threads that come first share one connection.
    std::lock_guard const guard(m_mutex);
    std::shared_ptr<CephMount>& mount = m_mounts[{location.user, location.fileSystem}];
    if (!mount)
        mount = std::make_shared<CephMount>(location, uri, m_calls);
    return mount;
}

} // namespace kelm::ceph
