#pragma once

#include <limits>

#include "yx/base.h"

namespace kelm {

// The numbers of the file format that several classes need. All sizes are fixed by the format.

/// Positions in metadata count sectors from the start of the extent file.
inline constexpr int kSectorSizeBytes = 512;

/// Entries in a grain table, and in the slot size table beside it.
inline constexpr int kGrainTableEntryCount = 512;

/// A grain table: 32-bit sector numbers.
inline constexpr int kGrainTableSizeBytes = 2048;
inline constexpr int kGrainTableSizeSectors = 4;

/// A slot size table: 16-bit sizes in sectors.
inline constexpr int kSlotSizeTableSizeBytes = 1024;
inline constexpr int kSlotSizeTableSizeSectors = 2;

/// A directory entry: the 32-bit sector number of a table.
inline constexpr int kDirectoryEntrySizeBytes = 4;

/// The grain size of every disk that is newly made.
inline constexpr int kNewDiskGrainSizeSectors = 128;

/// What a `zeroBuffer` argument must hold at least.
inline constexpr int kMinZeroBufferSizeBytes = kSectorSizeBytes;

/// The first four bytes of a sparse extent, as a little-endian number: the plain header record, and
/// the one with the private encryption extension.
inline constexpr unsigned int kHeaderMagic = 0x564D444B;
inline constexpr unsigned int kEncryptionExtensionHeaderMagic = 0x05644B45;

/// Format versions that can be read; ordinary extents are made with the oldest, stream-optimized
/// ones with the newest.
inline constexpr unsigned int kOldestVersion = 1;
inline constexpr unsigned int kNewestVersion = 3;

/// Bits of the header's flags.
inline constexpr unsigned int kFlagNewLineDetectionValid = 0x00000001;
inline constexpr unsigned int kFlagRedundantGrainDirectory = 0x00000002;
inline constexpr unsigned int kFlagCompressed = 0x00010000;
inline constexpr unsigned int kFlagMetaMarkers = 0x00020000;

/// Values of the header's compress algorithm.
inline constexpr unsigned short kCompressAlgorithmNone = 0;
inline constexpr unsigned short kCompressAlgorithmDeflate = 1;

/// Values of the header's encryption algorithm.
inline constexpr unsigned short kEncryptionAlgorithmNone = 0;
inline constexpr unsigned short kEncryptionAlgorithmAES256CBC = 1;

/// Enciphered data are a whole number of blocks; of the only encryption algorithm, AES.
inline constexpr int kCipherBlockSizeBytes = 16;

/// Values of the header's encryption key hash algorithm.
inline constexpr unsigned short kKeyHashAlgorithmSHA256 = 1;

/// What stands for the content ID of a parent in a disk that has none.
inline constexpr unsigned int kNoParentContentID = 0xFFFFFFFF;

/// What ends a compressed extent file: a marker, the footer, and the end-of-stream marker, each a
/// sector.
inline constexpr int kTrailSectors = 3;

/// The largest sector number whose byte position still leaves room to add the size of a transfer in
/// 64 bits.
inline constexpr __int64 kMaxPositionSectors =
    std::numeric_limits<__int64>::max() / 2 / kSectorSizeBytes;

/// What the header record has room for.
inline constexpr int kMaxEncryptionKeyHashSizeBytes = 427;

} // namespace kelm
