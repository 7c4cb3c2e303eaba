#include "host/backups/copied_files.h"

#include <cstring>
#include <optional>
#include <string>

#include <sys/vfs.h>

#include "host/disk/disk_files.h"
#include "host/store/file_status.h"
#include "host/store/free_space.h"
#include "host/store/stores.h"
#include "yx/error.h"
#include "yx/native_file_system.h"

namespace kelm::host {

namespace {

std::string nativeNameOf(yx::CURI const& file) {
    return yx::toNativePath(file).toStdString();
}

/// Whether copies in a folder can share the space of a file.
bool mayShareSpace(yx::CURI const& file, yx::CURI const& folder) {
    if (file.getScheme() != "file" || folder.getScheme() != "file")
        return false;
    constexpr long kBtrfs = 0x9123683E;
    constexpr long kXFS = 0x58465342;
    struct statfs source = {};
    struct statfs target = {};
    if (::statfs(nativeNameOf(file).c_str(), &source) != 0 ||
        ::statfs(nativeNameOf(folder).c_str(), &target) != 0)
        return false;
    return std::memcmp(&source.f_fsid, &target.f_fsid, sizeof source.f_fsid) == 0 &&
           (source.f_type == kBtrfs || source.f_type == kXFS);
}

} // namespace

bool isNameTaken(yx::CURI const& file) {
    IStore* const store = findStore(file);
    return store && store->findStatus(file, false);
}

bool areOnOneDevice(yx::CURI const& folder, yx::CURI const& other) {
    std::optional<FileIdentity> const one = identifyFile(folder);
    std::optional<FileIdentity> const two = identifyFile(other);
    return one && two && one->store == two->store && one->device == two->device;
}

void CopiedFiles::plan(yx::CURI const& from, yx::CURI const& to) {
    if (!m_fileSystem->fileExists(from))
        return;
    __int64 const bytes = measureFile(from).allocatedBytes;
    m_sample = from;
    m_totalBytes += bytes;
    if (!isNameTaken(to))
        m_neededBytes += bytes;
}

void CopiedFiles::verifyRoom(yx::CURI const& folder) const {
    std::optional<__int64> const freeBytes = getFreeBytes(folder);
    if (!freeBytes || m_neededBytes <= *freeBytes || mayShareSpace(m_sample, folder))
        return;
    throw yx::CIOError(yx::CIOError::NoSpace, "There is not enough room for the copy.",
                       yx::CProps()
                           .add("uri", folder.toString(true))
                           .add("neededBytes", yx::toString(m_neededBytes))
                           .add("freeBytes", yx::toString(*freeBytes)),
                       nullptr);
}

void CopiedFiles::addDone(yx::CURI const& from) {
    m_doneBytes += measureFile(from).allocatedBytes;
    if (m_work.progress)
        m_work.progress(m_doneBytes, m_totalBytes);
}

void CopiedFiles::finish() const {
    if (m_work.progress)
        m_work.progress(m_totalBytes, m_totalBytes);
}

} // namespace kelm::host
