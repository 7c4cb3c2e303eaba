#include "host/disk/file_guard.h"

#include <algorithm>

#include "host/disk/disk_opening.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

bool contains(std::vector<yx::CURI> const& uris, yx::CURI const& uri) {
    return std::find(uris.begin(), uris.end(), uri.toNormalized()) != uris.end();
}

} // namespace

FileGuard::FileGuard(yx::IFileSystem* fileSystem, bool overwrite, CancelFlag const* cancel)
    : m_fileSystem(fileSystem), m_overwrite(overwrite), m_cancel(cancel) {}

FileGuard::~FileGuard() {
    if (m_kept)
        return;
    for (auto uri = m_made.rbegin(); uri != m_made.rend(); ++uri) {
        try {
            m_fileSystem->deleteFile(*uri, true);
        } catch (std::exception const& error) {
            yx::logWarning(error,
                           "Cannot delete the unfinished file '" + uri->toString(true) + "'.", "");
        }
    }
}

bool FileGuard::wasMadeHere(yx::CURI const& uri) const {
    return contains(m_made, uri);
}

void FileGuard::protect(std::vector<yx::CURI> const& files) {
    for (yx::CURI const& uri : files)
        m_protected.push_back(uri.toNormalized());
}

void FileGuard::verifyMayReplace(yx::CURI const& uri) const {
    if (!m_overwrite) {
        throw yx::CIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    if (contains(m_protected, uri)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The file is being read.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
}

yx::P<yx::IIOStream> FileGuard::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                         unsigned int* reserved) {
    bool const mayMakeFile =
        access == yx::IIOStream::ReadWrite && !isLockFile(uri) && !wasMadeHere(uri);
    if (mayMakeFile) {
        if (m_cancel)
            m_cancel->check();
        if (m_fileSystem->fileExists(uri)) {
            verifyMayReplace(uri);
            // Nothing of the old file may shine through behind the end of the new one.
            m_fileSystem->deleteFile(uri, true);
        }
        // Noted first: an opening that fails late may have made the file.
        m_made.push_back(uri.toNormalized());
    }
    return m_fileSystem->openFile(uri, access, reserved);
}

bool FileGuard::fileExists(yx::CURI const& uri) {
    return m_fileSystem->fileExists(uri);
}

void FileGuard::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    if (!isLockFile(uri) && !wasMadeHere(uri) && m_fileSystem->fileExists(uri))
        verifyMayReplace(uri);
    m_fileSystem->deleteFile(uri, ignoreMissing);
}

} // namespace kelm::host
