#include "host/backups/disk_upload.h"

#include <algorithm>
#include <cstring>
#include <map>

#include "host/backups/moved_names.h"
#include "host/disk/disk_files.h"
#include "host/disk/disk_record.h"
#include "host/disk/unfinished_disk.h"
#include "host/store/file_exists.h"
#include "host/store/file_names.h"
#include "host/store/stores.h"
#include "kelm/format/constants.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

/// Puts the part of an area that lies in a range of a file over the bytes of that range.
void overlay(DescriptorFile const& descriptor, __int64 positionBytes, unsigned char* target,
             int sizeBytes) {
    auto const areaBytes = static_cast<__int64>(descriptor.area.size());
    __int64 const start = std::max(positionBytes, descriptor.positionBytes);
    __int64 const end = std::min(positionBytes + sizeBytes, descriptor.positionBytes + areaBytes);
    if (start < end) {
        std::memcpy(target + (start - positionBytes),
                    descriptor.area.data() + (start - descriptor.positionBytes),
                    static_cast<std::size_t>(end - start));
    }
}

} // namespace

DiskUpload::DiskUpload(yx::IFileSystem* fileSystem, yx::CURI const& from, yx::CURI const& to,
                       DiskCopyOptions const& options)
    : m_fileSystem(fileSystem),
      m_from(from.toNormalized()),
      m_to(to.toNormalized()),
      m_options(options),
      m_claims(fileSystem, FileLock::Type::Shared) {}

std::vector<yx::CURI> DiskUpload::run() {
    if (!m_fileSystem->fileExists(m_from)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", m_from.toString(true)), nullptr);
    }
    planFiles();
    for (std::size_t index = 1; index < m_files.size(); ++index)
        uploadFile(m_files[index].first, m_files[index].second);
    uploadMainFile();
    std::vector<yx::CURI> files;
    for (auto const& [from, to] : m_files)
        files.push_back(to);
    return files;
}

void DiskUpload::planFiles() {
    m_claims.add(readDiskParts(m_fileSystem.get(), m_from));
    // Only now nobody changes it any more.
    m_disk = readDiskParts(m_fileSystem.get(), m_from);
    verifyOwnsFiles(m_fileSystem.get(), *m_disk, m_options.trust);
    verifyIsFinished();
    if (m_fileSystem->fileExists(m_to))
        throwFileExists(m_to);
    for (auto const& names : listMovedNames(*m_disk, m_to)) {
        FileUse const use = measureFile(names.first);
        m_totalBytes += use.lengthBytes;
        if (use.exists)
            m_files.push_back(names);
    }
}

void DiskUpload::verifyIsFinished() const {
    CVMDKDescriptor descriptor = m_disk->descriptor.parse();
    if (m_options.trust.unfinished == UnfinishedDisks::Refused &&
        DiskRecord(descriptor).getState() == DiskState::Unfinished)
        throw UnfinishedDiskError(m_from);
}

/// As it is to be there.
DescriptorFile DiskUpload::makeDescriptor() const {
    std::map<yx::CURI, yx::CURI> newNames(m_files.begin(), m_files.end());
    DescriptorFile const moved = movedTo(m_disk->descriptor, m_to, newNames);
    std::optional<yx::CURI> const parent = findParentThere(moved.parse());
    return parent ? withParentReference(moved, makeFileReference(m_to.getParent(), *parent))
                  : moved;
}

std::optional<yx::CURI> DiskUpload::findParentThere(CVMDKDescriptor const& descriptor) const {
    yx::CURI const& parent = m_disk->parentFile;
    if (parent.isEmpty())
        return std::nullopt;
    yx::CURI const there = (m_to.getParent() << parent.getName()).toNormalized();
    if (there == m_to || !m_fileSystem->fileExists(there))
        return std::nullopt;
    unsigned int const contentID =
        readDescriptorFile(m_fileSystem.get(), there).parse().getContentID();
    return contentID == descriptor.getParentContentID() ? std::optional(there) : std::nullopt;
}

/// What an earlier call has uploaded.
bool DiskUpload::isThereAlready(yx::CURI const& from, yx::CURI const& to) const {
    if (!m_fileSystem->fileExists(to))
        return false;
    if (!DurableFiles::areAlike(from, to, m_options.work.cancel))
        throwFileExists(to);
    return true;
}

void DiskUpload::uploadFile(yx::CURI const& from, yx::CURI const& to) {
    unsigned int options = 0;
    yx::P<yx::IIOStream> const source =
        m_fileSystem->openFile(from, yx::IIOStream::ReadOnly, &options);
    Upload upload;
    upload.lengthBytes = source->getLength();
    upload.read = [&source](__int64 positionBytes, void* target, int sizeBytes) {
        source->seek(positionBytes);
        source->read(target, sizeBytes);
    };
    if (!isThereAlready(from, to))
        send(to, upload);
    m_doneBytes += upload.lengthBytes;
}

void DiskUpload::uploadMainFile() {
    DescriptorFile const descriptor = makeDescriptor();
    unsigned int options = 0;
    yx::P<yx::IIOStream> const source =
        m_fileSystem->openFile(m_from, yx::IIOStream::ReadOnly, &options);
    Upload upload;
    upload.lengthBytes =
        descriptor.isEmbedded ? source->getLength() : static_cast<__int64>(descriptor.area.size());
    upload.read = [&](__int64 positionBytes, void* target, int sizeBytes) {
        if (descriptor.isEmbedded) {
            source->seek(positionBytes);
            source->read(target, sizeBytes);
        }
        overlay(descriptor, positionBytes, static_cast<unsigned char*>(target), sizeBytes);
    };
    send(m_to, upload);
    if (m_options.work.progress)
        m_options.work.progress(m_totalBytes, m_totalBytes);
}

void DiskUpload::send(yx::CURI const& to, Upload upload) {
    upload.read = [this, read = std::move(upload.read)](__int64 positionBytes, void* target,
                                                        int sizeBytes) {
        read(positionBytes, target, sizeBytes);
        if (m_options.work.meter) {
            m_options.work.meter->addRead(sizeBytes);
            m_options.work.meter->addStored(sizeBytes);
        }
    };
    upload.check = [this] {
        if (m_options.work.cancel)
            m_options.work.cancel->check();
    };
    upload.progress = [this](__int64 doneBytes, __int64) {
        if (m_options.work.progress)
            m_options.work.progress(std::min(m_doneBytes + doneBytes, m_totalBytes), m_totalBytes);
    };
    findUpload(to)->uploadFile(to, upload);
}

} // namespace kelm::host
