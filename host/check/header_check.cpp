#include "host/check/header_check.h"

#include <cassert>
#include <limits>

#include "kelm/format/constants.h"
#include "kelm/format/marker.h"
#include "kelm/graindata/data_preparer.h"

namespace kelm::host {

std::optional<ExtentShape> HeaderCheck::run() {
    if (!m_reader.tryReadHeader(m_shape.header) || !tryTakeSizes())
        return std::nullopt;
    checkCompression();
    compareWithDisk();
    if (m_shape.header.getUncleanShutdown())
        m_findings.addOnce("the header says that the disk was not closed");
    return m_shape;
}

bool HeaderCheck::tryTakeSizes() {
    CVMDKSparseExtentHeader const& header = m_shape.header;
    unsigned long long const capacity = header.getCapacitySectors();
    unsigned long long const grainSize = header.getGrainSizeSectors();
    // So that no sum or product of sizes overflows.
    constexpr unsigned long long kMaxCapacitySectors = std::numeric_limits<__int64>::max() / 1024;
    if (grainSize == 0 || grainSize > CVMDKDataPreparer::kMaxGrainSizeSectors ||
        capacity > kMaxCapacitySectors) {
        m_findings.addOnce("the header's sizes are not possible");
        return false;
    }
    if (header.getGrainTableEntryCount() != kGrainTableEntryCount) {
        m_findings.addOnce("the header's tables have " +
                           std::to_string(header.getGrainTableEntryCount()) + " entries, not " +
                           std::to_string(kGrainTableEntryCount));
        return false;
    }
    m_shape.grainSizeSectors = static_cast<__int64>(grainSize);
    m_shape.grainCount =
        (static_cast<__int64>(capacity) + m_shape.grainSizeSectors - 1) / m_shape.grainSizeSectors;
    m_shape.tableCount = getVMDKTableCount(m_shape.grainCount);
    m_shape.compressed = header.isCompressed();
    assert(m_shape.grainCount <= m_shape.tableCount * kGrainTableEntryCount);
    return true;
}

/// The library goes by the flags alone; other software may go by the field.
void HeaderCheck::checkCompression() const {
    unsigned short const algorithm = m_shape.header.getCompressAlgorithm();
    if (algorithm != kCompressAlgorithmNone && algorithm != kCompressAlgorithmDeflate)
        m_findings.addOnce("the header names an unknown compression: " + std::to_string(algorithm));
    else if (m_shape.compressed && algorithm == kCompressAlgorithmNone)
        m_findings.addOnce(
            "the header names no compression, its flags say that grains are compressed");
    else if (!m_shape.compressed && algorithm == kCompressAlgorithmDeflate)
        m_findings.addOnce("the header names the compression deflate, its flags say that grains "
                           "are not compressed");
}

void HeaderCheck::compareWithDisk() const {
    assert(m_shape.grainSizeSectors > 0);
    DiskExtent const& extent = m_shape.extent;
    auto const capacity = static_cast<__int64>(m_shape.header.getCapacitySectors());
    if (capacity != extent.getSizeSectors()) {
        m_findings.addOnce("the header has a capacity of " + std::to_string(capacity) +
                           " sectors, the descriptor says " +
                           std::to_string(extent.getSizeSectors()));
    }
    if (m_shape.grainSizeSectors != extent.getGrainSizeSectors()) {
        m_findings.addOnce(
            "the header has a grain size of " + std::to_string(m_shape.grainSizeSectors) +
            " sectors, the disk has one of " + std::to_string(extent.getGrainSizeSectors()));
    }
    if (m_shape.compressed != extent.isCompressed) {
        m_findings.addOnce(m_shape.compressed ? "the extent is compressed, the disk is not"
                                              : "the extent is not compressed, the disk is");
    }
}

} // namespace kelm::host
