#include "host/disk/file_guard.h"

#include <algorithm>
#include <cassert>

#include "host/disk/disk_opening.h"
#include "host/store/file_exists.h"
#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/folder_sync.h"
#include "host/store/stores.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

[[noreturn]] void throwReplaced(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::IOFailure,
                       "The file was replaced by another one while it was being written.",
                       yx::CProps().add("uri", uri.toString(true)), nullptr);
}

} // namespace

FileGuard::FileGuard(yx::IFileSystem* fileSystem, bool overwrite, CancelFlag const* cancel)
    : m_fileSystem(fileSystem), m_overwrite(overwrite), m_cancel(cancel) {}

FileGuard::~FileGuard() {
    if (m_kept)
        return;
    for (auto file = m_made.rbegin(); file != m_made.rend(); ++file) {
        try {
            if (!isAnother(*file))
                m_fileSystem->deleteFile(file->uri, true);
        } catch (std::exception const& error) {
            yx::logWarning(
                error, "Cannot delete the unfinished file '" + file->uri.toString(true) + "'.", "");
        }
    }
}

FileGuard::MadeFile* FileGuard::findMade(yx::CURI const& uri) {
    auto const found = std::find_if(
        m_made.begin(), m_made.end(),
        [name = uri.toNormalized()](MadeFile const& file) { return file.uri == name; });
    return found == m_made.end() ? nullptr : &*found;
}

/// Whether there is a file of that name which is not the one that was made.
bool FileGuard::isAnother(MadeFile const& file) const {
    if (!file.isThere || !file.identity)
        return false;
    std::optional<FileIdentity> const now = identifyFile(file.uri);
    return now && now != file.identity;
}

void FileGuard::verifyFilesAreThere() const {
    for (MadeFile const& file : m_made)
        verifyIsThere(file);
}

void FileGuard::verifyIsThere(MadeFile const& file) const {
    if (!file.isThere)
        return;
    if (!m_fileSystem->fileExists(file.uri)) {
        throw yx::CIOError(yx::CIOError::NotFound,
                           "The file was deleted while it was being written.",
                           yx::CProps().add("uri", file.uri.toString(true)), nullptr);
    }
    if (isAnother(file))
        throwReplaced(file.uri);
}

/// Whether the stream is on the file that was made, whatever happened to the name meanwhile.
void FileGuard::verifyIsOpen(MadeFile const& file, yx::IIOStream& stream) const {
    std::optional<FileIdentity> const opened = identifyStream(stream);
    if (!opened)
        verifyIsThere(file);
    else if (file.identity && opened != file.identity)
        throwReplaced(file.uri);
}

void FileGuard::protect(std::vector<yx::CURI> const& files) {
    for (yx::CURI const& uri : files)
        m_protected.push_back(uri.toNormalized());
}

void FileGuard::verifyMayReplace(yx::CURI const& uri) const {
    if (!m_overwrite)
        throwFileExists(uri);
    if (std::any_of(m_protected.begin(), m_protected.end(),
                    [&](yx::CURI const& each) { return isSameFile(each, uri); })) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The file is being read.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    if (isOtherThanFile(uri)) {
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "The name is that of something else than a file, and is not replaced.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    m_locks->verifyIsFree(uri);
}

yx::P<yx::IIOStream> FileGuard::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                         unsigned int* options) {
    if (isLockFile(uri))
        return m_fileSystem->openFile(uri, access, options);
    MadeFile* made = findMade(uri);
    if (!made && access == yx::IIOStream::ReadWrite)
        made = &makeFile(uri);
    if (!made)
        return m_fileSystem->openFile(uri, access, options);
    yx::P<yx::IIOStream> stream = openMade(*made, uri, access, options);
    made->isThere = true;
    return stream;
}

/// Takes away a file that may be replaced, and notes the new one. On file systems of hosts it is
/// made only when it is opened; an opening that fails late may have made it.
///
/// The first file is the main one. Before others are replaced, that is on the device: a descriptor
/// that a power cut brought back would find the new disk's extents under the names of its own.
FileGuard::MadeFile& FileGuard::makeFile(yx::CURI const& uri) {
    if (m_cancel)
        m_cancel->check();
    if (m_overwrite && m_made.size() == 1 && m_made.front().identity)
        syncFolder(m_made.front().uri.getParent());
    if (m_fileSystem->fileExists(uri)) {
        verifyMayReplace(uri);
        // Nothing of the old file may shine through behind the end of the new one.
        m_fileSystem->deleteFile(uri, true);
    }
    std::optional<FileIdentity> identity;
    if (findStore(uri))
        identity = m_locks->makeFile(uri);
    return m_made.emplace_back(MadeFile{uri.toNormalized(), identity.has_value(), identity});
}

yx::P<yx::IIOStream> FileGuard::openMade(MadeFile const& file, yx::CURI const& uri,
                                         yx::IIOStream::Access access,
                                         unsigned int const* options) {
    verifyIsThere(file);
    unsigned int wanted = options ? *options : 0;
    if (file.isThere)
        wanted |= DoNotMakeFile;
    yx::P<yx::IIOStream> stream;
    try {
        stream = m_fileSystem->openFile(uri, access, &wanted);
    } catch (yx::CIOError const&) {
        verifyIsThere(file);
        throw;
    }
    verifyIsOpen(file, *stream);
    return stream;
}

bool FileGuard::fileExists(yx::CURI const& uri) {
    MadeFile const* const made = findMade(uri);
    if (!made || !made->isThere)
        return m_fileSystem->fileExists(uri);
    verifyIsThere(*made);
    return true;
}

void FileGuard::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    MadeFile const* const made = findMade(uri);
    if (made && isAnother(*made)) {
        // What is to be deleted is missing.
        if (ignoreMissing)
            return;
        throwReplaced(uri);
    }
    if (!isLockFile(uri) && !made && m_fileSystem->fileExists(uri))
        verifyMayReplace(uri);
    m_fileSystem->deleteFile(uri, ignoreMissing);
    // What has the name from now on is another file.
    if (made)
        m_made.erase(m_made.begin() + (made - m_made.data()));
    assert(!findMade(uri));
}

} // namespace kelm::host
