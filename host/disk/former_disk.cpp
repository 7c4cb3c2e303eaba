#include "host/disk/former_disk.h"

#include <algorithm>
#include <cassert>

#include "host/disk/extent_names.h"
#include "kelm/kelm.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

yx::P<CVMDKDescriptor> readDescriptor(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, uri, yx::IIOStream::ReadOnly);
    return CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
}

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
    : m_fileSystem(fileSystem) {
    try {
        noteExtentFiles(uri);
    } catch (yx::CError const&) {
        // There is no disk, or one that cannot be read: which files are its own is not known.
        m_extentFiles.clear();
    }
}

void FormerDisk::noteExtentFiles(yx::CURI const& uri) {
    yx::CURI const main = uri.toNormalized();
    if (!m_fileSystem->fileExists(main))
        return;
    yx::TArray<yx::P<CVMDKExtentInfo>> infos;
    readDescriptor(m_fileSystem.get(), main)->getExtentEntries(infos);
    for (yx::P<CVMDKExtentInfo> const& info : infos) {
        yx::CURI const file =
            vmdkFileReferenceToURI(main.getParent(), info->getFilename()).toNormalized();
        if (isExtentName(main, file) && m_fileSystem->fileExists(file) &&
            isExtentWithoutDescriptor(m_fileSystem.get(), file))
            m_extentFiles.push_back(file);
    }
}

void FormerDisk::removeFilesBut(std::vector<yx::CURI> const& kept) {
    for (yx::CURI const& file : m_extentFiles) {
        assert(file == file.toNormalized());
        if (std::find(kept.begin(), kept.end(), file) != kept.end())
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
}

} // namespace kelm::host
