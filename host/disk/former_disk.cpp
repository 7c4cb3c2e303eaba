#include "host/disk/former_disk.h"

#include <algorithm>
#include <cassert>

#include "host/disk/chain_members.h"
#include "host/disk/digest_file_name.h"
#include "host/disk/extent_names.h"
#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "kelm/kelm.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

bool isExtentWithoutDescriptor(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    try {
        yx::P<yx::IIOStream> const stream =
            openVMDKFileStream(fileSystem, uri, yx::IIOStream::ReadOnly);
        CVMDKSparseExtentHeader header;
        yx::CDataInStream in(stream.get());
        header.load(in);
        return header.getDescriptorOffsetSectors() == 0;
    } catch (yx::CError const&) {
        return false;
    }
}

} // namespace

FormerDisk::FormerDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri)
    : m_fileSystem(fileSystem), m_mainFile(uri.toNormalized()) {
    try {
        noteExtentFiles();
    } catch (yx::CError const&) {
        // There is no disk, or one that cannot be read: which files are its own is not known.
        m_files.clear();
    }
    noteDigestFile();
}

void FormerDisk::noteExtentFiles() {
    if (!m_fileSystem->fileExists(m_mainFile))
        return;
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    readDescriptor(m_fileSystem.get(), m_mainFile)->getExtentEntries(infos);
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        yx::CURI const file =
            vmdkFileReferenceToURI(m_mainFile.getParent(), info->getFilename()).toNormalized();
        if (isExtentName(m_mainFile, file) && m_fileSystem->fileExists(file) &&
            isExtentWithoutDescriptor(m_fileSystem.get(), file))
            m_files.push_back({file, identifyFile(file)});
    }
}

void FormerDisk::noteDigestFile() {
    yx::CURI const file = digestFileOf(m_mainFile).toNormalized();
    if (m_fileSystem->fileExists(m_mainFile) && isDigestFile(m_fileSystem.get(), file))
        m_files.push_back({file, identifyFile(file)});
}

std::vector<yx::CURI> FormerDisk::getFiles() const {
    std::vector<yx::CURI> files;
    for (OwnFile const& file : m_files)
        files.push_back(file.uri);
    return files;
}

void FormerDisk::keep(FileLocks& locks) {
    if (!findStore(m_mainFile) || !m_fileSystem->fileExists(m_mainFile))
        return;
    std::vector<yx::CURI> files{m_mainFile};
    for (OwnFile const& file : m_files)
        files.push_back(file.uri);
    for (yx::CURI const& file : files) {
        try {
            locks.take(file, FileLock::Type::Exclusive);
        } catch (yx::CIOError const&) {
            // Not to be opened; who replaces it needs rights on the folder alone.
        }
    }
    m_kept.emplace(files);
}

void FormerDisk::removeFilesBut(std::vector<yx::CURI> const& kept) {
    for (auto const& [file, identity] : m_files) {
        assert(file == file.toNormalized());
        if (std::find(kept.begin(), kept.end(), file) != kept.end() ||
            identifyFile(file) != identity)
            continue;
        try {
            m_fileSystem->deleteFile(file, true);
        } catch (yx::CError const& error) {
            yx::logWarning(error,
                           "Cannot delete the file '" + file.toString(true) +
                               "' of the disk that was replaced.",
                           "");
        }
    }
    if (m_kept)
        m_kept->drop();
}

} // namespace kelm::host
