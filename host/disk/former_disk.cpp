#include "host/disk/former_disk.h"

#include <algorithm>

#include "kelm/kelm.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

/// Whether a name is that of the disk with "-s" and digits before the extension.
bool isExtentName(yx::CURI const& main, yx::CURI const& extent) {
    wxString digits;
    wxString const prefix = main.getTitle().wx() + "-s";
    if (extent.getExtension() != main.getExtension() ||
        !extent.getTitle().wx().StartsWith(prefix, &digits))
        return false;
    return !digits.empty() && digits.find_first_not_of("0123456789") == wxString::npos;
}

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
        // No disk, or one that nobody can read: whatever it had is not known to be its own.
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
        if (file.getParent() == main.getParent() && isExtentName(main, file) &&
            m_fileSystem->fileExists(file) && isExtentWithoutDescriptor(m_fileSystem.get(), file))
            m_extentFiles.push_back(file);
    }
}

void FormerDisk::removeFilesBut(std::vector<yx::CURI> const& kept) {
    for (yx::CURI const& file : m_extentFiles) {
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
