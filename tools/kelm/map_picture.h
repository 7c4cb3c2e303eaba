#pragma once

#include <string>
#include <vector>

#include "host/transfer/disk_map.h"

namespace kelm::tool {

/// A picture of a disk as an SVG document: a grid of cells, each for a run of grains of one length,
/// filled from below by as much as the disk and its parents hold there; a bar for the space in the
/// files; a legend. Disks of every size make a picture of about the same size, and take about the
/// same memory.
class MapPicture {
public:
    /// An empty disk.
    MapPicture(std::string title, __int64 sizeBytes, __int64 grainSizeBytes);

    /// Enters who holds a part of the disk.
    void addRun(host::GrainRun const& run);

    /// Enters how the files of the disk use their space.
    void setSpace(CVMDKSpaceInfo const& space) { m_space = space; }

    /// The document.
    std::string draw() const;

private:
    /// What share of a cell is held where.
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
