#include "tools/kelm/map_picture.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/system/size_text.h"
#include "tools/kelm/svg.h"

namespace kelm::tool {

namespace {

constexpr int kColumns = 64;
constexpr int kMaxRows = 24;
constexpr int kCellPitch = 14;
constexpr int kCellSize = 12;
constexpr int kMargin = 24;
constexpr int kGridTop = 76;
constexpr int kWidth = 2 * kMargin + kColumns * kCellPitch;
constexpr int kBarHeight = 18;

// Colours that people with any kind of colour vision can distinguish; the hatching helps in print.
constexpr char kHereFill[] = "#0072b2";
constexpr char kParentFill[] = "url(#parent)";
constexpr char kAbsentFill[] = "#e6e9ec";
constexpr char kTableFill[] = "#56b4e9";
constexpr char kDeadFill[] = "url(#dead)";

__int64 calcCellBytes(__int64 sizeBytes, __int64 grainSizeBytes) {
    __int64 const grains = (sizeBytes + grainSizeBytes - 1) / grainSizeBytes;
    constexpr __int64 kMaxCells = __int64{kColumns} * kMaxRows;
    __int64 const grainsPerCell = (grains + kMaxCells - 1) / kMaxCells;
    return std::max<__int64>(grainsPerCell, 1) * grainSizeBytes;
}

/// Even a tiny share must be visible.
double shownHeight(double share) {
    return share > 0 ? std::max(1.5, share * kCellSize) : 0;
}

std::string openPicture(std::string const& title, int height) {
    std::string const size = std::to_string(kWidth) + " " + std::to_string(height);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" viewBox=\"0 0 " + size +
           "\" width=\"" + std::to_string(kWidth) + "\" height=\"" + std::to_string(height) +
           "\" font-family=\"sans-serif\" fill=\"#1c2329\">\n<title>" + svg::escape(title) +
           "</title>\n"
           "<defs>\n"
           "<pattern id=\"parent\" width=\"4\" height=\"4\" patternUnits=\"userSpaceOnUse\">"
           "<rect width=\"4\" height=\"4\" fill=\"#e69f00\"/>"
           "<path d=\"M0 4L4 0\" stroke=\"#8a5f00\" stroke-width=\"0.8\"/></pattern>\n"
           "<pattern id=\"dead\" width=\"5\" height=\"5\" patternUnits=\"userSpaceOnUse\">"
           "<rect width=\"5\" height=\"5\" fill=\"#f3d9cc\"/>"
           "<path d=\"M0 0L5 5M0 5L5 0\" stroke=\"#d55e00\" stroke-width=\"0.9\"/></pattern>\n"
           "</defs>\n<rect width=\"100%\" height=\"100%\" fill=\"#ffffff\"/>\n";
}

} // namespace

MapPicture::MapPicture(std::string title, __int64 sizeBytes, __int64 grainSizeBytes)
    : m_title(std::move(title)),
      m_sizeBytes(sizeBytes),
      m_cellBytes(calcCellBytes(sizeBytes, grainSizeBytes)),
      m_cells(static_cast<std::size_t>((sizeBytes + m_cellBytes - 1) / m_cellBytes)) {}

void MapPicture::addRun(host::GrainRun const& run) {
    assert(run.startBytes >= 0 && run.endBytes() <= m_sizeBytes);
    if (run.place == host::GrainPlace::Absent)
        return;
    bool const here = run.place == host::GrainPlace::Here;
    (here ? m_hereBytes : m_parentBytes) += run.lengthBytes;
    assert(m_hereBytes + m_parentBytes <= m_sizeBytes && "runs do not overlap");
    for (__int64 position = run.startBytes; position < run.endBytes();) {
        __int64 const index = position / m_cellBytes;
        __int64 const end = std::min(run.endBytes(), (index + 1) * m_cellBytes);
        double const share = static_cast<double>(end - position) / static_cast<double>(m_cellBytes);
        Cell& cell = m_cells[static_cast<std::size_t>(index)];
        (here ? cell.here : cell.parent) += share;
        position = end;
    }
}

std::string MapPicture::drawCell(Cell const& cell, double x, double y) {
    std::string text = svg::rect(x, y, kCellSize, kCellSize, kAbsentFill);
    double const here = std::min<double>(shownHeight(cell.here), kCellSize);
    double const parent = std::min(shownHeight(cell.parent), kCellSize - here);
    if (here > 0)
        text += svg::rect(x, y + kCellSize - here, kCellSize, here, kHereFill);
    if (parent > 0)
        text += svg::rect(x, y + kCellSize - here - parent, kCellSize, parent, kParentFill);
    return text;
}

std::string MapPicture::drawGrid() const {
    std::string text;
    for (std::size_t i = 0; i < m_cells.size(); ++i) {
        auto const column = static_cast<int>(i % kColumns);
        auto const row = static_cast<int>(i / kColumns);
        text += drawCell(m_cells[i], kMargin + column * kCellPitch, kGridTop + row * kCellPitch);
    }
    return text;
}

std::string MapPicture::drawSpaceBar(int top) const {
    constexpr double kBarWidth = kColumns * kCellPitch - (kCellPitch - kCellSize);
    __int64 const totalBytes =
        m_space.getHeaderSize() + m_space.getPayloadSizeInFile() + m_space.getDeadSpaceSize();
    std::string text =
        svg::label(kMargin, top - 8, 13, "Space in the files: " + host::formatSize(totalBytes));
    double x = kMargin;
    auto const add = [&](__int64 bytes, char const* fill) {
        if (bytes <= 0)
            return;
        double const width =
            static_cast<double>(bytes) / static_cast<double>(totalBytes) * kBarWidth;
        text += svg::rect(x, top, width, kBarHeight, fill);
        x += width;
    };
    add(m_space.getHeaderSize(), kTableFill);
    add(m_space.getPayloadSizeInFile(), kHereFill);
    add(m_space.getDeadSpaceSize(), kDeadFill);
    return text;
}

std::string MapPicture::drawLegend(int top) const {
    struct Entry {
        char const* fill;
        std::string text;
    };
    Entry const entries[] = {
        {kHereFill, "data here, " + host::formatSize(m_hereBytes)},
        {kParentFill, "in a parent, " + host::formatSize(m_parentBytes)},
        {kAbsentFill, "nothing, " + host::formatSize(m_sizeBytes - m_hereBytes - m_parentBytes)},
        {kTableFill, "tables, " + host::formatSize(m_space.getHeaderSize())},
        {kDeadFill, "dead space, " + host::formatSize(m_space.getDeadSpaceSize())},
    };
    constexpr int kEntryWidth = kColumns * kCellPitch / 5;
    std::string text;
    double x = kMargin;
    for (Entry const& entry : entries) {
        text += svg::rect(x, top, kCellSize, kCellSize, entry.fill);
        text += svg::label(x + kCellSize + 6, top + kCellSize - 2, 12, entry.text);
        x += kEntryWidth;
    }
    return text;
}

std::string MapPicture::draw() const {
    int const rows = static_cast<int>((m_cells.size() + kColumns - 1) / kColumns);
    int const barTop = kGridTop + rows * kCellPitch + 38;
    int const legendTop = barTop + kBarHeight + 22;
    return openPicture(m_title, legendTop + kCellSize + kMargin) +
           svg::label(kMargin, 38, 20, m_title) +
           svg::label(kMargin, 60, 13,
                      host::formatSize(m_sizeBytes) + "; each cell is " +
                          host::formatSize(m_cellBytes) +
                          ", filled by as much as is held; the disk begins at the top left") +
           drawGrid() + drawSpaceBar(barTop) + drawLegend(legendTop) + "</svg>\n";
}

} // namespace kelm::tool
