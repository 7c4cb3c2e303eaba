#include "host/disk/new_disk.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <string_view>

#include <unistd.h>

#include "host/disk/disk_opening.h"
#include "host/disk/extent_room.h"
#include "host/store/file_names.h"
#include "host/store/free_space.h"
#include "kelm/disk/disk.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

constexpr char kCreateName[] = "SafeDisk::create";

/// What the names of extent files have in addition to that of the disk: a hyphen, "s", and as many
/// digits as there can be.
constexpr std::string_view kExtentSuffix = "-s00000";

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
    if (name.wx().find_first_of("\"\n\r") != wxString::npos)
        refuse(
            "A disk cannot have a name with a quote or a line end, since its descriptor could not "
            "name its files.");
    if (isReferenceTo(uri.getParent(), name, uri))
        return;
    if (name.wx().find(':') != wxString::npos)
        refuse(
            "A disk cannot have a name with a colon here, since its descriptor could not name its "
            "files: what stands before the colon would be taken for the scheme of a URI.");
    refuse("A disk cannot have a name with a backslash, since its descriptor could not name its "
           "files.");
}

/// The longest name in a folder, in bytes; nothing if there is no limit, or none that is known.
std::optional<__int64> getNameLimit(yx::CURI const& folder) {
    if (folder.getScheme() != "file")
        return std::nullopt;
    long const limit = ::pathconf(yx::toNativePath(folder).toStdString().c_str(), _PC_NAME_MAX);
    return limit > 0 ? std::optional<__int64>(limit) : std::nullopt;
}

/// The lock file's name is longer than that of the disk, and so are those of the extent files.
void verifyNamesFit(yx::CURI const& uri, NewDisk const& request) {
    std::optional<__int64> const limitBytes = getNameLimit(uri.getParent());
    auto const nameBytes = static_cast<__int64>(uri.getName().toStdString().size());
    std::size_t const suffixBytes =
        request.fileSizeLimitBytes == -1
            ? std::string_view(kLockFileExtension).size()
            : std::max(std::string_view(kLockFileExtension).size(), kExtentSuffix.size());
    if (!limitBytes || nameBytes + static_cast<__int64>(suffixBytes) <= *limitBytes)
        return;
    __int64 const mostBytes = *limitBytes - static_cast<__int64>(suffixBytes);
    throw yx::CInvalidArgError(
        kCreateName,
        "The name of the disk is too long: " +
            yx::String(request.fileSizeLimitBytes == -1 ? "that of its lock file"
                                                        : "those of its extent files") +
            " would exceed " + yx::toString(*limitBytes) +
            " bytes. Give the disk a name of at most " + yx::toString(mostBytes) + " bytes.",
        yx::CProps().add("uri", uri.toString(true)));
}

/// What the files of a disk can have at most.
__int64 calcMostFileBytes(NewDisk const& request) {
    if (request.fileSizeLimitBytes != -1)
        return request.fileSizeLimitBytes;
    __int64 const sizeBytes = CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(request.sizeBytes);
    __int64 const grainSizeBytes = CVMDKDisk::getGrainSizeSectors() * kSectorSizeBytes;
    if (sizeBytes / grainSizeBytes > kMaxExtentFileBytes / grainSizeBytes)
        return std::numeric_limits<__int64>::max();
    CVMDKDataPreparer const preparer(CVMDKDisk::getGrainSizeSectors(), request.compressed, 1);
    __int64 const grains = sizeBytes / grainSizeBytes;
    __int64 const grainBytes =
        request.compressed ? calcWorstCaseGrainBytes(preparer) : grainSizeBytes;
    // Tables and directories twice, slot sizes with their markers, and a descriptor's worth.
    __int64 const tableBytes = (grains / kGrainTableEntryCount + 1) * 16 * kSectorSizeBytes;
    constexpr __int64 kFixedBytes = 4 << 20;
    return grains * grainBytes + tableBytes + kFixedBytes;
}

void verifyFitsFiles(yx::CURI const& uri, NewDisk const& request) {
    __int64 const mostBytes = calcMostFileBytes(request);
    bool const isSplit = request.fileSizeLimitBytes != -1;
    __int64 const storeLimitBytes = getMaxFileLengthBytes(uri);
    if (storeLimitBytes < kMaxExtentFileBytes && mostBytes > storeLimitBytes) {
        throw yx::CInvalidArgError(kCreateName,
                                   "A file of the disk could outgrow the " +
                                       yx::toString(storeLimitBytes) +
                                       " bytes that a file may have there. Split the disk over " +
                                       (isSplit ? "smaller" : "several") + " files.",
                                   yx::CProps().add("uri", uri.toString(true)));
    }
    if (isSplit || mostBytes <= kMaxExtentFileBytes)
        return;
    yx::String const sizeBytes =
        yx::toString(CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(request.sizeBytes));
    throw yx::CInvalidArgError(
        kCreateName,
        "A disk of " + sizeBytes +
            " bytes could outgrow the 2 TiB that one file can hold. Split it over several files.",
        yx::CProps().add("sizeBytes", sizeBytes));
}

} // namespace

__int64 calcWorstCaseGrainBytes(CVMDKDataPreparer const& preparer) {
    return (preparer.getWorstCaseGrainSizeSectors() + kEncipheringSectors) * kSectorSizeBytes;
}

void verifyCanBeMade(yx::CURI const& uri, NewDisk const& request) {
    verifyFitsFiles(uri, request);
    verifyName(uri);
    verifyNamesFit(uri, request);
}

} // namespace kelm::host
