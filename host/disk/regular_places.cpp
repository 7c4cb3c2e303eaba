#include "host/disk/regular_places.h"

#include <cassert>

#include "kelm/format/constants.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/format/marker.h"

namespace kelm::host {

RegularPlaces calcRegularPlaces(RegularExtent const& extent) {
    assert(extent.tableCount >= 0 && extent.firstSector >= 1 && extent.grainSizeSectors >= 1);
    __int64 const markerSectors = extent.isCompressed ? 1 : 0;
    __int64 const directorySectors = getVMDKDirectorySizeSectors(extent.tableCount);
    RegularPlaces places;
    places.strideSectors = kGrainTableSizeSectors + markerSectors;
    __int64 at = extent.firstSector + markerSectors;
    places.redundantDirectorySector = at;
    at += directorySectors + markerSectors;
    places.redundantTableSector = at;
    at += extent.tableCount * places.strideSectors;
    places.directorySector = at;
    at += directorySectors + markerSectors;
    places.tableSector = at;
    at += extent.tableCount * places.strideSectors;
    if (extent.isCompressed) {
        places.slotSizeDirectorySector = at;
        at += directorySectors + markerSectors;
        places.slotSizeTableSector = at;
        places.slotSizeStrideSectors = kSlotSizeTableSizeSectors + markerSectors;
        at += extent.tableCount * places.slotSizeStrideSectors;
    }
    // The last step was past a marker that nothing follows.
    places.overheadSectors = roundUpToMultiple(at - markerSectors, extent.grainSizeSectors);
    return places;
}

} // namespace kelm::host
