#include "kelm/disk/internal/extent_sizing.h"

#include <algorithm>
#include <cassert>
#include <limits>

#include "kelm/disk/disk.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/rounding.h"
#include "yx/error.h"

namespace kelm {

namespace {

constexpr __int64 kMaxExtentLines = 32768;
constexpr __int64 kDescriptorBaseBytes = 32768;
constexpr int kExtentLineBytesBesideName = 48;

struct FileBudget {
    __int64 bytes;
    bool embedded;
};

/// What a file may take. One file of any size gets room beyond what it can ever need; a compressed
/// file gets half of the limit, since rewritten grains leave their old places dead.
FileBudget calcFileBudget(__int64 sizeBytes, bool compressed, __int64 fileSizeLimit) {
    constexpr __int64 kSlackBytes = 5242880;
    if (fileSizeLimit == kUnlimitedFileSize)
        return {(sizeBytes * 5 + kSlackBytes) * 2, true};
    // A limit of any sign is a number to report; only one that the next line would overflow is not.
    __int64 const limit = std::max(fileSizeLimit, std::numeric_limits<__int64>::min() / 2);
    if (compressed)
        return {(limit - 1) / 2, true};
    return {limit - 1, false};
}

__int64 calcOverheadBytes(FileBudget const& budget, bool compressed,
                          __int64 worstCaseDescriptorBytes) {
    __int64 const budgetGrains = budget.bytes / kNewDiskGrainSizeBytes;
    __int64 const tables = (budgetGrains + kGrainTableEntryCount - 1) / kGrainTableEntryCount;
    __int64 const directorySectors = roundUpToSectors(tables * kDirectoryEntrySizeBytes);
    // Directory and tables twice, and the header.
    __int64 overheadSectors = (directorySectors + tables * kGrainTableSizeSectors) * 2 + 1;
    // The slot size directory and its tables, and a marker before each of three directories and
    // their tables.
    if (compressed)
        overheadSectors += directorySectors + tables * (kSlotSizeTableSizeSectors + 3) + 3;
    __int64 overheadBytes = overheadSectors * kSectorSizeBytes;
    if (budget.embedded)
        overheadBytes += worstCaseDescriptorBytes;
    overheadBytes = roundUpToMultiple(overheadBytes, kNewDiskGrainSizeBytes);
    // A sector a grain for record headers, and the trail; deliberately behind the rounding.
    if (compressed)
        overheadBytes += (budgetGrains + kTrailSectors) * kSectorSizeBytes;
    return overheadBytes;
}

/// Deliberate: the product is taken in 32 bits, so the sizes of disks with absurdly long names stay
/// what they have always been.
__int64 calcWorstCaseDescriptorBytes(int lineBytes) {
    unsigned int const linesBytes =
        static_cast<unsigned int>(lineBytes) * static_cast<unsigned int>(kMaxExtentLines);
    __int64 const bytes = static_cast<int>(linesBytes);
    return roundUpToMultiple(bytes + kDescriptorBaseBytes, kSectorSizeBytes);
}

} // namespace

ExtentSizing sizeExtents(__int64 sizeBytes, bool compressed, __int64 fileSizeLimit,
                         int mainFileNameBytes) {
    FileBudget const budget = calcFileBudget(sizeBytes, compressed, fileSizeLimit);
    int const lineBytes = mainFileNameBytes + kExtentLineBytesBesideName;
    __int64 const worstCaseDescriptorBytes = calcWorstCaseDescriptorBytes(lineBytes);
    __int64 const overheadBytes = calcOverheadBytes(budget, compressed, worstCaseDescriptorBytes);

    __int64 const maxExtentPayloadBytes =
        (budget.bytes - overheadBytes) / kNewDiskGrainSizeBytes * kNewDiskGrainSizeBytes;
    if (maxExtentPayloadBytes < kNewDiskGrainSizeBytes) {
        // Deliberately no bad argument, though a limit that is too small leads here.
        throw yx::CError(kFileSizeLimitTooSmallMessagePrefix + yx::toString(maxExtentPayloadBytes),
                         "", -1, yx::CProps(), nullptr);
    }

    // The first test keeps the product of the second within 64 bits.
    __int64 const lineCount = sizeBytes / maxExtentPayloadBytes + 1;
    bool const tooManyLines = lineCount > worstCaseDescriptorBytes;
    __int64 const descriptorSectors =
        tooManyLines ? 0 : roundUpToSectors(lineCount * lineBytes + kDescriptorBaseBytes);
    if (tooManyLines || descriptorSectors * kSectorSizeBytes > worstCaseDescriptorBytes) {
        // Deliberate: both numbers are the worst case; logs are compared with earlier ones.
        yx::String const worstCase = yx::toString(worstCaseDescriptorBytes);
        throw yx::CError(kTooManyExtentsMessagePrefix + ("(calculated: " + worstCase) +
                             ", worstCase: " + worstCase + ")",
                         "", -1, yx::CProps(), nullptr);
    }
    assert(maxExtentPayloadBytes % kNewDiskGrainSizeBytes == 0);
    return {maxExtentPayloadBytes, maxExtentPayloadBytes / kNewDiskGrainSizeBytes,
            descriptorSectors, budget.embedded};
}

} // namespace kelm
