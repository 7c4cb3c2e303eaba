#include "host/check/trail_check.h"

#include <algorithm>
#include <cassert>

#include "kelm/format/constants.h"
#include "kelm/format/marker.h"

namespace kelm::host {

void checkTrail(ExtentReader& reader, __int64 dataEndSectors, ExtentFindings const& findings) {
    assert(dataEndSectors >= 0 && !findings.isRepeating());
    __int64 const start = reader.getSizeSectors() - kTrailSectors;
    if (reader.getSizeBytes() % kSectorSizeBytes != 0 || !reader.contains(start, 1)) {
        findings.addOnce("the file does not end in whole sectors");
        return;
    }
    if (start < dataEndSectors) {
        findings.addOnce("the grains reach into the trail");
        return;
    }
    std::optional<ExtentReader::Bytes> const trail =
        reader.tryRead(start, __int64{kTrailSectors} * kSectorSizeBytes, "the trail");
    std::optional<ExtentReader::Bytes> const header =
        reader.tryRead(0, kSectorSizeBytes, "the header");
    if (!trail || !header)
        return;
    unsigned char const* const footer = trail->data() + kSectorSizeBytes;
    if (!isVMDKMarker(trail->data(), VMDKMarkerFooter, nullptr))
        findings.addOnce("the trail has no footer marker");
    if (!std::equal(header->begin(), header->end(), footer))
        findings.addOnce("the footer is no copy of the header");
    if (!isVMDKMarker(footer + kSectorSizeBytes, VMDKMarkerEndOfStream, nullptr))
        findings.addOnce("the trail has no end-of-stream marker");
}

} // namespace kelm::host
