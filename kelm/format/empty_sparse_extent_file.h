#pragma once

#include "kelm/format/descriptor.h"
#include "yx/file_system.h"

namespace kelm {

/// Writes a complete sparse extent file without data and closes it: header, embedded descriptor,
/// empty grain directories and tables, and for a stream-optimized extent (compressed grains,
/// markers) the slot size structures and the closing footer.
///
/// - `grainCount` is the extent's capacity, `grainSizeSectors` the size of a grain.
/// - `zeroBuffer` is all zero with a used size of at least 512; zeros are written in pieces of it.
/// - `descriptor` is embedded in an area of `descriptorSizeSectors`; it may be null. It is stored
///   as UTF-8, which sets its encoding.
/// - `encryptionKeyHash` is empty for an extent that is not enciphered, and at most 427 bytes.
///
/// `yx::CInvalidArgError`, before anything is touched, for arguments out of these ranges and for
/// sizes that the format cannot express. Any later failure is logged with `yx::logError`, the file
/// is deleted, which a failure of the deletion (logged too) does not hide, and the error passes on.
KELM_API void createEmptyVMDKSparseExtentFile(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                              bool streamOptimized, __int64 grainCount,
                                              __int64 grainSizeSectors,
                                              yx::TBuffer<unsigned char> const& zeroBuffer,
                                              CVMDKDescriptor* descriptor,
                                              __int64 descriptorSizeSectors,
                                              yx::TBuffer<unsigned char> const& encryptionKeyHash);

} // namespace kelm
