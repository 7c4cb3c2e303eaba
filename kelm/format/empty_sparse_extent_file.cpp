#include "kelm/format/empty_sparse_extent_file.h"

#include <limits>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm {

// A fresh file of T tables, with directories of D sectors:
//
//   ordinary                                       stream-optimized
//   header                               1         header                                   1
//   [embedded descriptor]                          [embedded descriptor]
//                                                  marker: grain directory, value D         1
//   redundant grain directory            D         redundant grain directory                D
//   its grain tables                     4 each    its grain tables, marker before each     5 each
//                                                  marker: grain directory, value D         1
//   grain directory                      D         grain directory                          D
//   its grain tables                     4 each    its grain tables, marker before each     5 each
//                                                  marker: slot size directory, value D     1
//                                                  slot size directory                      D
//                                                  slot size tables, marker before each     3 each
//   zeros up to a multiple of the grain size       zeros up to a multiple of the grain size
//   (overhead: data grains go here)                (overhead: data grains go here)
//                                                  marker: footer, value 1                  1
//                                                  the header again                         1
//                                                  marker: end of stream, value 0           1

namespace {

constexpr char kFunction[] = "createEmptyVMDKSparseExtentFile";

/// What one call asks for.
struct EmptyExtent {
    yx::CURI const& uri;
    bool streamOptimized;
    __int64 grainCount;
    __int64 grainSizeSectors;
    yx::TBuffer<unsigned char> const& zeroBuffer;
    CVMDKDescriptor* descriptor;
    __int64 descriptorSizeSectors;
    yx::TBuffer<unsigned char> const& encryptionKeyHash;
};

[[noreturn]] void refuse(EmptyExtent const& extent, char const* what, __int64 value) {
    throw yx::CInvalidArgError(kFunction, yx::String(what) + ": " + yx::toString(value),
                               yx::CProps().add("uri", extent.uri.toString(true)));
}

/// Whether every table of the extent lies at a sector that a directory's 32 bits can name.
bool tablesFit(EmptyExtent const& extent) {
    // The greatest number of sectors that one table takes: two grain tables and a slot size table
    // with a marker each, and its share of three directories.
    constexpr __int64 kSectorsPerTable = 5 + 5 + 3 + 1;
    constexpr __int64 kMaxTables = std::numeric_limits<unsigned int>::max() / kSectorsPerTable;
    return getVMDKTableCount(extent.grainCount) <= kMaxTables;
}

void verifyArguments(EmptyExtent const& extent) {
    constexpr __int64 kMaxBytes = std::numeric_limits<int>::max();

    if (extent.grainSizeSectors < 1 || extent.grainSizeSectors > kMaxBytes / kSectorSizeBytes)
        refuse(extent, "Invalid grain size", extent.grainSizeSectors);
    if (extent.grainCount < 0 ||
        extent.grainCount > std::numeric_limits<__int64>::max() / extent.grainSizeSectors ||
        !tablesFit(extent))
        refuse(extent, "Invalid grain count", extent.grainCount);
    if (extent.zeroBuffer.getUsed() < kMinZeroBufferSizeBytes)
        refuse(extent, "Zero buffer too small", extent.zeroBuffer.getUsed());
    if (extent.descriptor && (extent.descriptorSizeSectors < 0 ||
                              extent.descriptorSizeSectors > kMaxBytes / kSectorSizeBytes))
        refuse(extent, "Invalid descriptor size", extent.descriptorSizeSectors);
    if (extent.encryptionKeyHash.getUsed() > kMaxEncryptionKeyHashSizeBytes)
        refuse(extent, "Invalid encryption key hash size", extent.encryptionKeyHash.getUsed());
}

void initHeader(CVMDKSparseExtentHeader& header, EmptyExtent const& extent) {
    constexpr unsigned int kFlags = kFlagNewLineDetectionValid | kFlagRedundantGrainDirectory;
    constexpr unsigned int kStreamOptimizedFlags = kFlags | kFlagCompressed | kFlagMetaMarkers;

    header.setVersion(extent.streamOptimized ? kNewestVersion : kOldestVersion);
    header.setCompressAlgorithm(extent.streamOptimized ? kCompressAlgorithmDeflate
                                                       : kCompressAlgorithmNone);
    header.setFlags(extent.streamOptimized ? kStreamOptimizedFlags : kFlags);
    header.setCapacitySectors(
        static_cast<unsigned long long>(extent.grainCount * extent.grainSizeSectors));
    header.setGrainSizeSectors(static_cast<unsigned long long>(extent.grainSizeSectors));
    header.setGrainTableEntryCount(kGrainTableEntryCount);
    if (extent.encryptionKeyHash.getUsed() > 0) {
        header.setEncryptionExtensionEnabled(true);
        header.setEncryptionAlgorthm(kEncryptionAlgorithmAES256CBC);
        header.setEncryptionKeyHashAlgorthm(kKeyHashAlgorithmSHA256);
        header.setEncryptionKeyHash(extent.encryptionKeyHash);
    }
}

unsigned long long getOffsetSectors(yx::CDataOutStream& stream) {
    return static_cast<unsigned long long>(getStreamPositionVMDKSectors(stream));
}

/// Writes one grain directory with its tables and returns the directory's sector.
unsigned long long writeGrainDirectory(yx::CDataOutStream& stream, EmptyExtent const& extent) {
    __int64 const tableCount = getVMDKTableCount(extent.grainCount);
    if (extent.streamOptimized) {
        writeVMDKMarker(stream, VMDKMarkerGrainDirectory, getVMDKDirectorySizeSectors(tableCount),
                        extent.zeroBuffer);
    }
    unsigned long long const offsetSectors = getOffsetSectors(stream);
    writeEmptyVMDKGrainDirectoryAndTables(stream, tableCount, extent.zeroBuffer,
                                          extent.streamOptimized);
    return offsetSectors;
}

void padToGrainBoundary(yx::CDataOutStream& stream, EmptyExtent const& extent) {
    __int64 const grainSizeBytes = extent.grainSizeSectors * kSectorSizeBytes;
    __int64 const rest = stream.getPosition() % grainSizeBytes;
    if (rest > 0)
        vmdkWritePadding(stream, static_cast<int>(grainSizeBytes - rest), extent.zeroBuffer);
}

void writeFooter(yx::CDataOutStream& stream, CVMDKSparseExtentHeader& header,
                 EmptyExtent const& extent) {
    writeVMDKMarker(stream, VMDKMarkerFooter, 1, extent.zeroBuffer);
    header.store(stream);
    writeVMDKMarker(stream, VMDKMarkerEndOfStream, 0, extent.zeroBuffer);
}

void writeFile(yx::IFileSystem* fileSystem, EmptyExtent const& extent) {
    yx::P<yx::IIOStream> const file =
        openVMDKFileStream(fileSystem, extent.uri, yx::IIOStream::ReadWrite);
    yx::CDataOutStream stream(file.get());
    CVMDKSparseExtentHeader header;
    initHeader(header, extent);

    // Holds the header's place: offsets and overhead are known only at the end.
    header.store(stream);
    if (extent.descriptor) {
        header.setDescriptorOffsetSectors(getOffsetSectors(stream));
        header.setDescriptorSizeSectors(
            static_cast<unsigned long long>(extent.descriptorSizeSectors));
        extent.descriptor->store(stream,
                                 static_cast<int>(extent.descriptorSizeSectors * kSectorSizeBytes),
                                 extent.zeroBuffer);
    }
    header.setRedundantGrainDirectoryOffsetSectors(writeGrainDirectory(stream, extent));
    header.setGrainDirectoryOffsetSectors(writeGrainDirectory(stream, extent));
    if (extent.streamOptimized) {
        writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
            stream, getVMDKTableCount(extent.grainCount), extent.zeroBuffer);
    }
    padToGrainBoundary(stream, extent);
    header.setOverheadSectors(getOffsetSectors(stream));
    if (extent.streamOptimized)
        writeFooter(stream, header, extent);
    stream.seek(0);
    header.store(stream);
    // The buffering layer may hold all of it back; a failure to write that must come out here.
    stream.close();
}

void deleteFileIgnoringErrors(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    try {
        fileSystem->deleteFile(uri, true);
    } catch (std::exception const& error) {
        yx::logError(error, "Error deleting half-finished extent file. Ignoring.", "");
    }
}

} // namespace

void createEmptyVMDKSparseExtentFile(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                     bool streamOptimized, __int64 grainCount,
                                     __int64 grainSizeSectors,
                                     yx::TBuffer<unsigned char> const& zeroBuffer,
                                     CVMDKDescriptor* descriptor, __int64 descriptorSizeSectors,
                                     yx::TBuffer<unsigned char> const& encryptionKeyHash) {
    EmptyExtent const extent{
        uri,        streamOptimized,       grainCount,       grainSizeSectors, zeroBuffer,
        descriptor, descriptorSizeSectors, encryptionKeyHash};
    verifyArguments(extent);
    try {
        writeFile(fileSystem, extent);
    } catch (std::exception const& error) {
        // Deliberate: the names are not those of this function; these are the words that logs are
        // searched for.
        yx::logError(error,
                     "Error in CVMDKDisk::createEmptySparseExtentFile ('" + uri.toString(true) +
                         "'). Deleting file and letting error through.",
                     "");
        deleteFileIgnoringErrors(fileSystem, uri);
        throw;
    }
}

} // namespace kelm
