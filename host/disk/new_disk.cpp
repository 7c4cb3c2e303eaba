#include "host/disk/new_disk.h"

#include "host/disk/disk_opening.h"
#include "host/disk/extent_room.h"
#include "host/store/file_names.h"
#include "kelm/disk/disk.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

constexpr char kCreateName[] = "SafeDisk::create";

/// What enciphering can add to a prepared grain.
constexpr __int64 kEncipheringSectors = 1;

void verifyName(yx::CURI const& uri) {
    auto const refuse = [&uri](char const* message) {
        throw yx::CInvalidArgError(kCreateName, message,
                                   yx::CProps().add("uri", uri.toString(true)));
    };
    if (isOtherThanFile(uri))
        refuse("A disk cannot take the place of something that is no regular file.");
    // A guard takes such a file for a lock file, which it lets everybody touch.
    if (isLockFile(uri))
        refuse("The name of a disk must not end in '.lock'.");
    yx::String const name = uri.getName();
    bool const storable = name.wx().find_first_of("\"\n\r") == wxString::npos &&
                          isReferenceTo(uri.getParent(), name, uri);
    if (!storable)
        refuse("A disk cannot have this name, since its descriptor could not name its files.");
}

void verifyFitsOneFile(NewDisk const& request) {
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
        kCreateName,
        "A disk of " + yx::toString(sizeBytes) +
            " bytes could outgrow the 2 TiB that one file can hold. Split it over several files.",
        yx::CProps().add("sizeBytes", yx::toString(sizeBytes)));
}

} // namespace

__int64 calcWorstCaseGrainBytes(CVMDKDataPreparer const& preparer) {
    return (preparer.getWorstCaseGrainSizeSectors() + kEncipheringSectors) * kSectorSizeBytes;
}

void verifyCanBeMade(yx::CURI const& uri, NewDisk const& request) {
    verifyFitsOneFile(request);
    verifyName(uri);
}

} // namespace kelm::host
