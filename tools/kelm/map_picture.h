#pragma once

#include <string>
#include <vector>

#include "host/disk_map.h"

namespace kelm::tool {

/// What a picture of a disk shows.
struct MapPicture {
    std::string title;
    __int64 sizeBytes = 0;
    __int64 grainSizeBytes = 0;
    std::vector<host::GrainRun> runs;

    /// How the files of the disk use their space.
    __int64 tableBytes = 0;
    __int64 grainBytes = 0;
    __int64 deadBytes = 0;
};

/// The picture as an SVG document: a grid of cells, each for a run of grains of one length, filled
/// from below by as much as the disk and its parents hold there; a bar for the space in the files;
/// a legend. Disks of every size make a picture of about the same size.
std::string drawMap(MapPicture const& picture);

} // namespace kelm::tool
