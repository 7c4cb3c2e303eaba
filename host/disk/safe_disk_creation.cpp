#include "host/disk/disk_opening.h"
#include "host/disk/safe_disk.h"
#include "host/store/file_names.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

/// What enciphering can add to a prepared grain.
constexpr __int64 kEncipheringSectors = 1;

void verifyName(yx::CURI const& uri) {
    auto const refuse = [&uri](char const* message) {
        throw yx::CInvalidArgError("SafeDisk::create", message,
                                   yx::CProps().add("uri", uri.toString(true)));
    };
    // A guard takes such a file for a lock file, which it lets everybody touch.
    if (uri.getExtension() == ".lock")
        refuse("The name of a disk must not end in '.lock'.");
    yx::String const name = uri.getName();
    bool const storable = name.wx().find_first_of("\"\n\r") == wxString::npos &&
                          isReferenceTo(uri.getParent(), name, uri);
    if (!storable)
        refuse("A disk cannot have this name, since its descriptor could not name its files.");
}

} // namespace

__int64 SafeDisk::calcWorstCaseGrainBytes(CVMDKDataPreparer const& preparer) {
    return (preparer.getWorstCaseGrainSizeSectors() + kEncipheringSectors) * kSectorSizeBytes;
}

/// Refuses a disk in one file that could outgrow what its tables can name.
void SafeDisk::verifyFitsOneFile(NewDisk const& request) {
    if (request.fileSizeLimitBytes != -1)
        return;
    __int64 const sizeBytes = CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(request.sizeBytes);
    __int64 const grainSizeBytes = CVMDKDisk::getGrainSizeSectors() * kSectorSizeBytes;
    if (sizeBytes / grainSizeBytes <= kMaxExtentFileBytes / grainSizeBytes) {
        CVMDKDataPreparer const preparer(CVMDKDisk::getGrainSizeSectors(), request.compressed, 1);
        __int64 const grains = sizeBytes / grainSizeBytes;
        __int64 const grainBytes =
            request.compressed ? calcWorstCaseGrainBytes(preparer) : grainSizeBytes;
        // Tables and directories twice, slot sizes with their markers, and a descriptor's worth.
        __int64 const tableBytes = (grains / kGrainTableEntryCount + 1) * 16 * kSectorSizeBytes;
        constexpr __int64 kFixedBytes = 4 << 20;
        if (grains * grainBytes + tableBytes + kFixedBytes <= kMaxExtentFileBytes)
            return;
    }
    throw yx::CInvalidArgError(
        "SafeDisk::create",
        "A disk of " + yx::toString(sizeBytes) +
            " bytes could outgrow the 2 TiB that one file can hold. Split it over several files.",
        yx::CProps().add("sizeBytes", yx::toString(sizeBytes)));
}

std::unique_ptr<SafeDisk> SafeDisk::create(FileGuard* files, yx::CURI const& uri,
                                           NewDisk const& request) {
    verifyFitsOneFile(request);
    verifyName(uri);
    yx::String parentRelPath;
    unsigned int parentContentID = kNoParentContentID;
    // Open until the disk is made, so that nobody changes them meanwhile.
    std::vector<std::unique_ptr<SafeDisk>> parents;
    for (yx::CURI next = request.parent; !next.isEmpty() && parents.size() <= kMaxChainLength;
         next = parents.back()->getDisk().getParentDiskMainURI()) {
        parents.push_back(
            std::make_unique<SafeDisk>(files, next, yx::IIOStream::ReadOnly, request.password));
        files->protect(parents.back()->listFiles());
    }
    if (!parents.empty()) {
        parentContentID = parents.front()->getDisk().getDescriptor()->getContentID();
        parentRelPath = makeFileReference(uri.getParent(), request.parent);
    }
    verifyIsNotInUse(files, uri);
    CVMDKDisk::create(files, uri, request.sizeBytes, request.password, request.compressed,
                      request.compressionLevel, request.fileSizeLimitBytes, parentRelPath,
                      parentContentID, request.createExtentFilesOnDemand);
    // Opened anew, for the cache without limit.
    std::unique_ptr<SafeDisk> disk(new SafeDisk(
        files, openLockedDisk(files, uri, yx::IIOStream::ReadWrite, request.password,
                              request.compressionLevel, CVMDKGrainTableCache::kNoLimit)));
    for (yx::CURI const& file : disk->listFiles()) {
        if (files->fileExists(file))
            syncFile(files, file);
    }
    return disk;
}

} // namespace kelm::host
