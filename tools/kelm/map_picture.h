#pragma once

#include <string>
#include <vector>

#include "host/transfer/disk_map.h"

namespace kelm::tool {

/// A picture of a disk as an SVG document: a grid of cells, a bar for the space in the files, and a
/// legend. All cells stand for the same number of grains; each is filled from below, in proportion
/// to what the disk and its parents hold there. The size of the picture, and the memory that it
/// takes, hardly depend on the size of the disk.
class MapPicture {
public:
    /// Begins with a disk that holds nothing.
    MapPicture(std::string title, __int64 sizeBytes, __int64 grainSizeBytes);

    /// Adds a run. Runs must not overlap.
    void addRun(host::GrainRun const& run);

    /// Sets how the files of the disk use their space.
    void setSpace(CVMDKSpaceInfo const& space) { m_space = space; }

    /// The document.
    std::string draw() const;

private:
    /// The shares of a cell that the disk and its parents hold, from 0 to 1.
    struct Cell {
        double here = 0;
        double parent = 0;
    };

    static std::string drawCell(Cell const& cell, double x, double y);
    std::string drawGrid() const;
    std::string drawSpaceBar(int top) const;
    std::string drawLegend(int top) const;

    std::string m_title;
    __int64 m_sizeBytes;
    __int64 m_cellBytes;
    std::vector<Cell> m_cells;
    __int64 m_hereBytes = 0;
    __int64 m_parentBytes = 0;
    CVMDKSpaceInfo m_space;
};

} // namespace kelm::tool
