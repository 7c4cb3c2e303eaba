#include <algorithm>
#include <limits>
#include <utility>

#include "kelm/disk/disk.h"
#include "kelm/disk/internal/disk_key.h"
#include "kelm/disk/internal/extent_sizing.h"
#include "kelm/extent/low_level_file_stream.h"
#include "kelm/format/constants.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "kelm/format/internal/rounding.h"
#include "yx/error.h"
#include "yx/mt_rand.h"
#include "yx/string_format.h"

namespace kelm {

namespace {

constexpr __int64 kDefaultFileSizeLimitBytes = 0x80000000;
constexpr __int64 kMinDiskSizeBytes = 8388608;

/// 2 TiB: the largest file limit and the largest disk in one file.
constexpr __int64 kMaxFileSizeLimitBytes = 0x20000000000;

constexpr __int64 kSmallestZeroBufferBytes = 65536;

/// The geometry that the adapter reports: 63 sectors, 255 heads, 16065 sectors a cylinder.
constexpr __int64 kGeometrySectors = 63;
constexpr __int64 kGeometryHeads = 255;
constexpr __int64 kSectorsPerCylinder = kGeometrySectors * kGeometryHeads;

/// Name and grain count of each extent.
using ExtentList = yx::TArray<std::pair<yx::String, __int64>>;

/// What the caller of `create` asked for.
struct Request {
    yx::CURI const& uri;
    yx::String const& password;
    bool compressed;
    __int64 fileSizeLimit;
    yx::String const& parentRelPath;
    unsigned int parentContentID;
    bool createExtentFilesOnDemand;
};

void verifyParentArguments(Request const& request) {
    bool const havePath = !request.parentRelPath.isEmpty();
    bool const haveContentID = request.parentContentID != kNoParentContentID;
    if (havePath != haveContentID) {
        // Deliberate: the first name is not that of the argument; logs are searched for the words.
        throw yx::CInvalidArgError(
            "CVMDKDisk::create",
            "sParentRelPath and parentContentID must either both be specified or both have the "
            "default values.",
            yx::CProps()
                .add("parentRelPath", request.parentRelPath)
                .add("parentContentID", yx::toHexString(request.parentContentID)));
    }
}

/// Deliberately any number, even one that `CVMDKDescriptorAccessor::changeContentID` refuses.
unsigned int drawContentID() {
    return yx::CMTRand::drawGlobal32();
}

yx::String getCreateType(Request const& request) {
    // Deliberate: a compressed disk that is split is "streamOptimized" all the same.
    if (request.compressed)
        return "streamOptimized";
    return request.fileSizeLimit == kUnlimitedFileSize ? "monolithicSparse"
                                                       : "twoGbMaxExtentSparse";
}

void addHeaderLines(Request const& request, CVMDKDescriptor& descriptor) {
    descriptor.addGenericLine("# Disk DescriptorFile", true);
    descriptor.setVersion(1);
    descriptor.setEncodingUTF8();
    descriptor.setContentID(drawContentID());
    if (request.parentRelPath.isEmpty()) {
        descriptor.setParentContentID(kNoParentContentID);
    } else {
        descriptor.setParentFileNameHint(request.parentRelPath);
        descriptor.setParentContentID(request.parentContentID);
    }
    descriptor.setCreateType(getCreateType(request));
    if (request.createExtentFilesOnDemand)
        descriptor.setYxCreateExtentFilesOnDemand(true);
}

/// Adds the extent lines and returns the extents.
ExtentList addExtentLines(Request const& request, ExtentSizing const& sizing, __int64 totalGrains,
                          CVMDKDescriptor& descriptor) {
    ExtentList extents;
    for (__int64 done = 0; done < totalGrains;) {
        int const index = extents.getSize();
        __int64 const grains = std::min(totalGrains - done, sizing.grainsPerExtent);
        yx::String name = request.uri.getName();
        if (!sizing.embedded || index > 0) {
            yx::String const number = yx::CStringFormat("%05d") << index;
            name = request.uri.getTitle() + "-s" + number + request.uri.getExtension();
        }
        extents.add({name, grains});
        yx::P<CVMDKExtentInfo> const info = yx::makeObject<CVMDKExtentInfo>(
            "RW", grains * kNewDiskGrainSizeSectors, "SPARSE", name, -1);
        descriptor.addExtentEntry(info.get());
        done += grains;
    }
    return extents;
}

void addDiskDataBase(__int64 capacitySectors, CVMDKDescriptor& descriptor) {
    descriptor.addGenericLine("", false);
    descriptor.addGenericLine("# The Disk Data Base", false);
    descriptor.addGenericLine("#DDB", false);
    descriptor.setAdapterType("lsilogic");
    descriptor.setGeometrySectors(kGeometrySectors);
    descriptor.setGeometryHeads(kGeometryHeads);
    descriptor.setGeometryCylinders((capacitySectors + kSectorsPerCylinder - 1) /
                                    kSectorsPerCylinder);
}

void writeDescriptorFile(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                         CVMDKDescriptor& descriptor, int sizeBytes,
                         yx::TBuffer<unsigned char> const& zeroBuffer) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, uri, yx::IIOStream::ReadWrite);
    descriptor.store(*stream, sizeBytes, zeroBuffer);
    // Buffered bytes must not fail in a destructor, where the failure could not be reported.
    stream->close();
}

void writeExtentFiles(yx::IFileSystem* fileSystem, Request const& request,
                      ExtentSizing const& sizing, ExtentList const& extents,
                      CVMDKDescriptor& descriptor, yx::TBuffer<unsigned char> const& zeroBuffer,
                      yx::TBuffer<unsigned char> const& keyHash) {
    yx::CURI const folder = request.uri.getParent();
    for (int index = 0; index < extents.getSize(); ++index) {
        auto const& [name, grainCount] = extents[index];
        yx::CURI const extentURI = folder << name;
        // Deliberately also where no file is made now: an old one would be taken for the disk's.
        fileSystem->deleteFile(extentURI, true);
        if (index > 0 && request.createExtentFilesOnDemand)
            continue;
        bool const withDescriptor = index == 0 && sizing.embedded;
        createEmptyVMDKSparseExtentFile(
            fileSystem, extentURI, request.compressed, grainCount, kNewDiskGrainSizeSectors,
            zeroBuffer, withDescriptor ? &descriptor : nullptr, sizing.descriptorSectors, keyHash);
    }
}

} // namespace

__int64 CVMDKDisk::getDefaultFileSizeLimit() {
    return kDefaultFileSizeLimitBytes;
}

__int64 CVMDKDisk::getGrainSizeSectors() {
    return kNewDiskGrainSizeSectors;
}

__int64 CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes(__int64 minSizeBytes) {
    if (minSizeBytes > std::numeric_limits<__int64>::max() - kNewDiskGrainSizeBytes) {
        throw yx::CInvalidArgError(
            "CVMDKDisk::getVirtualDiskSizeBytesFromMinSizeBytes",
            "Invalid VMDK disk size: " + yx::toString(minSizeBytes) + " bytes.", yx::CProps());
    }
    __int64 const sizeBytes = std::max(minSizeBytes, kMinDiskSizeBytes);
    return roundUpToMultiple(sizeBytes, kNewDiskGrainSizeBytes);
}

yx::P<CVMDKDisk> CVMDKDisk::create(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                   __int64 minSizeBytes, yx::String const& password,
                                   bool compressed, int compressionLevel, __int64 fileSizeLimit,
                                   yx::String const& parentRelPath, unsigned int parentContentID,
                                   bool createExtentFilesOnDemand) {
    Request const request{uri,
                          password,
                          compressed,
                          std::min(fileSizeLimit, kMaxFileSizeLimitBytes),
                          parentRelPath,
                          parentContentID,
                          createExtentFilesOnDemand};
    verifyParentArguments(request);
    __int64 const sizeBytes = getVirtualDiskSizeBytesFromMinSizeBytes(minSizeBytes);
    if (sizeBytes > kMaxFileSizeLimitBytes && fileSizeLimit == kUnlimitedFileSize) {
        throw yx::CInvalidArgError("CVMDKDisk::create",
                                   "Invalid VMDK disk size for single unsplittable disk file: " +
                                       yx::toString(sizeBytes) + " bytes.",
                                   yx::CProps().add("sizeBytes", yx::toString(sizeBytes)));
    }
    auto const nameBytes = static_cast<int>(uri.getName().toStdString().size());
    ExtentSizing const sizing =
        sizeExtents(sizeBytes, compressed, request.fileSizeLimit, nameBytes);

    yx::P<CVMDKDescriptor> const descriptor = yx::makeObject<CVMDKDescriptor>();
    addHeaderLines(request, *descriptor);
    yx::TBuffer<unsigned char> keyHash;
    if (!password.isEmpty())
        keyHash = addNewDiskKey(*descriptor, password);
    descriptor->addGenericLine("", true);
    descriptor->addGenericLine("# Extent description", false);
    ExtentList const extents =
        addExtentLines(request, sizing, sizeBytes / kNewDiskGrainSizeBytes, *descriptor);
    addDiskDataBase(sizeBytes / kSectorSizeBytes, *descriptor);

    __int64 const descriptorBytes = sizing.descriptorSectors * kSectorSizeBytes;
    yx::TBuffer<unsigned char> zeroBuffer(
        static_cast<int>(std::max(descriptorBytes, kSmallestZeroBufferBytes)), -1);
    yx::initMemory(zeroBuffer.getData(), 0, static_cast<std::size_t>(zeroBuffer.getUsed()));
    if (!sizing.embedded) {
        writeDescriptorFile(fileSystem, uri, *descriptor, static_cast<int>(descriptorBytes),
                            zeroBuffer);
    }
    writeExtentFiles(fileSystem, request, sizing, extents, *descriptor, zeroBuffer, keyHash);
    return yx::makeObject<CVMDKDisk>(fileSystem, uri, yx::IIOStream::ReadWrite, password,
                                     compressionLevel, nullptr, nullptr);
}

} // namespace kelm
