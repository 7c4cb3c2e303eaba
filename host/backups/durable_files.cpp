#include "host/backups/durable_files.h"

#include <cerrno>
#include <cstdio>
#include <string>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/backups/durable_store.h"
#include "host/backups/file_copy.h"
#include "host/disk/disk_files.h"
#include "host/store/file_moving.h"
#include "host/store/file_names.h"
#include "host/store/folder_sync.h"
#include "host/system/file_descriptor.h"
#include "yx/error.h"
#include "yx/native_file_system.h"

namespace kelm::host {

namespace {

std::string nativePathOf(yx::CURI const& uri) {
    return yx::toNativePath(uri).toStdString();
}

void syncFolderOf(yx::CURI const& uri) {
    syncFolder(uri.getParent());
}

/// Whether the operating system has all of it.
bool areLocal(yx::CURI const& one, yx::CURI const& other) {
    return one.getScheme() == "file" && other.getScheme() == "file";
}

void writeAll(int file, std::vector<unsigned char> const& bytes, __int64 positionBytes,
              std::string const& path) {
    for (std::size_t done = 0; done < bytes.size();) {
        ssize_t const count = ::pwrite(file, bytes.data() + done, bytes.size() - done,
                                       positionBytes + static_cast<__int64>(done));
        if (count < 0 && errno != EINTR)
            throwSystemError("Cannot write to the file", path);
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

void syncOpenFile(int file, std::string const& path) {
    if (::fsync(file) != 0)
        throwSystemError("Cannot sync the file", path);
}

FileDescriptor openToRead(std::string const& path) {
    FileDescriptor file =
        FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!file.isOpen())
        throwSystemError("Cannot open the file", path);
    return file;
}

/// A file under a name for the time being, which is taken away again unless it gets its own.
class UnfinishedFile {
public:
    explicit UnfinishedFile(yx::CURI const& target)
        : m_target(target), m_uri(unfinishedNameOf(target)), m_path(nativePathOf(m_uri)) {
        constexpr mode_t kMode = 0600;
        m_file = FileDescriptor::own(
            ::open(m_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kMode));
        if (!m_file.isOpen())
            throwSystemError("Cannot make the file", m_path);
    }
    UnfinishedFile(UnfinishedFile const&) = delete;
    UnfinishedFile& operator=(UnfinishedFile const&) = delete;
    ~UnfinishedFile() {
        if (!m_isNamed)
            ::unlink(m_path.c_str());
    }

    int get() const { return m_file.get(); }
    std::string const& getPath() const { return m_path; }

    /// As far as this user may.
    void takeRightsOf(yx::CURI const& like) const {
        struct stat status = {};
        if (::stat(nativePathOf(like).c_str(), &status) != 0)
            throwSystemError("Cannot look at the file", nativePathOf(like));
        constexpr mode_t kRights = 07777;
        if (::fchown(m_file.get(), status.st_uid, status.st_gid) != 0 && errno != EPERM)
            throwSystemError("Cannot change the owner of the file", m_path);
        if (::fchmod(m_file.get(), status.st_mode & kRights) != 0)
            throwSystemError("Cannot change the rights of the file", m_path);
    }

    void giveName(bool mayReplace) {
        syncOpenFile(m_file.get(), m_path);
        if (!mayReplace) {
            yx::P<yx::CNativeFileSystem> const files = yx::makeObject<yx::CNativeFileSystem>();
            moveFile(files.get(), m_uri, m_target);
        } else if (::rename(m_path.c_str(), nativePathOf(m_target).c_str()) != 0) {
            throwSystemError("Cannot rename the file", m_path);
        }
        m_isNamed = true;
        syncFolderOf(m_target);
    }

private:
    yx::CURI m_target;
    yx::CURI m_uri;
    std::string m_path;
    FileDescriptor m_file;
    bool m_isNamed = false;
};

void writeWhole(yx::CURI const& target, std::vector<unsigned char> const& bytes,
                yx::CURI const& like, bool mayReplace) {
    if (!areLocal(target, like)) {
        DurableStore::writeWhole(target, bytes, like, mayReplace);
        return;
    }
    UnfinishedFile file(target);
    writeAll(file.get(), bytes, 0, file.getPath());
    file.takeRightsOf(like);
    file.giveName(mayReplace);
}

/// Whether it was there.
bool unlinkIfThere(yx::CURI const& file) {
    std::string const path = nativePathOf(file);
    if (::unlink(path.c_str()) == 0)
        return true;
    if (errno != ENOENT)
        throwSystemError("Cannot delete the file", path);
    return false;
}

} // namespace

yx::CURI unfinishedNameOf(yx::CURI const& file) {
    return (file.getParent() << (file.getName() + kUnfinishedFileSuffix)).toNormalized();
}

bool DurableFiles::tryLink(yx::CURI const& from, yx::CURI const& to) {
    return DurableStore::tryLink(from, to);
}

void DurableFiles::copy(yx::CURI const& from, yx::CURI const& to, CancelFlag const* cancel) {
    if (!areLocal(from, to)) {
        DurableStore::copy(from, to, cancel, m_meter);
        return;
    }
    std::string const path = nativePathOf(from);
    FileDescriptor const source = openToRead(path);
    UnfinishedFile target(to);
    copyFileContent({source.get(), path}, {target.get(), target.getPath()}, cancel, m_meter);
    target.takeRightsOf(from);
    target.giveName(false);
}

bool DurableFiles::areAlike(yx::CURI const& one, yx::CURI const& other, CancelFlag const* cancel) {
    if (!areLocal(one, other))
        return DurableStore::areAlike(one, other, cancel);
    if (isSameFile(one, other))
        return true;
    std::string const path = nativePathOf(one);
    std::string const otherPath = nativePathOf(other);
    FileDescriptor const file = openToRead(path);
    FileDescriptor const otherFile = openToRead(otherPath);
    return isCopyOf({file.get(), path}, {otherFile.get(), otherPath}, cancel);
}

void DurableFiles::make(yx::CURI const& file, std::vector<unsigned char> const& bytes,
                        yx::CURI const& like) {
    writeWhole(file, bytes, like, false);
}

void DurableFiles::replace(yx::CURI const& file, std::vector<unsigned char> const& bytes) {
    writeWhole(file, bytes, file, true);
}

void DurableFiles::remake(yx::CURI const& file, std::function<void(yx::CURI const&)> const& fill) {
    if (!areLocal(file, file)) {
        DurableStore::remake(file, fill);
        return;
    }
    UnfinishedFile target(file);
    fill(unfinishedNameOf(file));
    target.takeRightsOf(file);
    target.giveName(true);
}

void DurableFiles::patch(yx::CURI const& file, __int64 positionBytes,
                         std::vector<unsigned char> const& bytes) {
    if (!areLocal(file, file)) {
        DurableStore::patch(file, positionBytes, bytes);
        return;
    }
    std::string const path = nativePathOf(file);
    FileDescriptor const descriptor =
        FileDescriptor::own(::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!descriptor.isOpen())
        throwSystemError("Cannot open the file", path);
    writeAll(descriptor.get(), bytes, positionBytes, path);
    syncOpenFile(descriptor.get(), path);
}

void DurableFiles::remove(yx::CURI const& file) {
    if (!areLocal(file, file)) {
        DurableStore::remove(file);
        return;
    }
    // Before the file, by which the next attempt would find it.
    bool const hadUnfinished = unlinkIfThere(unfinishedNameOf(file));
    if (unlinkIfThere(file) || hadUnfinished)
        syncFolderOf(file);
}

} // namespace kelm::host
