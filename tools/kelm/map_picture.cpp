#include "tools/kelm/map_picture.h"

#include <algorithm>
#include <cstdio>

#include "host/size_text.h"

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

// Colours that people with any kind of colour vision can tell apart; the hatching helps in print.
constexpr char kHereFill[] = "#0072b2";
constexpr char kParentFill[] = "url(#parent)";
constexpr char kAbsentFill[] = "#e6e9ec";
constexpr char kTableFill[] = "#56b4e9";
constexpr char kDeadFill[] = "url(#dead)";

/// What share of a cell is held where.
struct Cell {
    double here = 0;
    double parent = 0;
};

std::string escape(std::string const& text) {
    std::string escaped;
    for (char const character : text) {
        if (character == '<')
            escaped += "&lt;";
        else if (character == '&')
            escaped += "&amp;";
        else
            escaped += character;
    }
    return escaped;
}

std::string number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
}

std::string rect(double x, double y, double width, double height, char const* fill) {
    return "<rect x=\"" + number(x) + "\" y=\"" + number(y) + "\" width=\"" + number(width) +
           "\" height=\"" + number(height) + "\" fill=\"" + fill + "\"/>\n";
}

std::string label(double x, double y, int size, std::string const& text) {
    return "<text x=\"" + number(x) + "\" y=\"" + number(y) + "\" font-size=\"" +
           std::to_string(size) + "\">" + escape(text) + "</text>\n";
}

__int64 calcCellBytes(MapPicture const& picture) {
    __int64 const grains =
        (picture.sizeBytes + picture.grainSizeBytes - 1) / picture.grainSizeBytes;
    constexpr __int64 kMaxCells = __int64{kColumns} * kMaxRows;
    __int64 const grainsPerCell = (grains + kMaxCells - 1) / kMaxCells;
    return std::max<__int64>(grainsPerCell, 1) * picture.grainSizeBytes;
}

void addRun(std::vector<Cell>& cells, host::GrainRun const& run, __int64 cellBytes) {
    for (__int64 position = run.startBytes; position < run.endBytes();) {
        auto const index = static_cast<std::size_t>(position / cellBytes);
        __int64 const end = std::min(run.endBytes(), (static_cast<__int64>(index) + 1) * cellBytes);
        double const share = static_cast<double>(end - position) / static_cast<double>(cellBytes);
        if (run.place == host::GrainPlace::Here)
            cells[index].here += share;
        else
            cells[index].parent += share;
        position = end;
    }
}

std::vector<Cell> fillCells(MapPicture const& picture, __int64 cellBytes) {
    std::vector<Cell> cells(
        static_cast<std::size_t>((picture.sizeBytes + cellBytes - 1) / cellBytes));
    for (host::GrainRun const& run : picture.runs) {
        if (run.place != host::GrainPlace::Absent)
            addRun(cells, run, cellBytes);
    }
    return cells;
}

/// A little that is held must still be seen.
double shownHeight(double share) {
    return share > 0 ? std::max(1.5, share * kCellSize) : 0;
}

std::string drawCell(Cell const& cell, double x, double y) {
    std::string text = rect(x, y, kCellSize, kCellSize, kAbsentFill);
    double const here = std::min<double>(shownHeight(cell.here), kCellSize);
    double const parent = std::min(shownHeight(cell.parent), kCellSize - here);
    if (here > 0)
        text += rect(x, y + kCellSize - here, kCellSize, here, kHereFill);
    if (parent > 0)
        text += rect(x, y + kCellSize - here - parent, kCellSize, parent, kParentFill);
    return text;
}

std::string drawGrid(std::vector<Cell> const& cells) {
    std::string text;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        auto const column = static_cast<int>(i % kColumns);
        auto const row = static_cast<int>(i / kColumns);
        text += drawCell(cells[i], kMargin + column * kCellPitch, kGridTop + row * kCellPitch);
    }
    return text;
}

std::string drawSpaceBar(MapPicture const& picture, int top) {
    constexpr double kBarWidth = kColumns * kCellPitch - (kCellPitch - kCellSize);
    auto const total =
        static_cast<double>(picture.tableBytes + picture.grainBytes + picture.deadBytes);
    std::string text =
        label(kMargin, top - 8, 13,
              "Space in the files: " +
                  host::formatSize(picture.tableBytes + picture.grainBytes + picture.deadBytes));
    double x = kMargin;
    auto const add = [&](__int64 bytes, char const* fill) {
        if (bytes <= 0)
            return;
        double const width = static_cast<double>(bytes) / total * kBarWidth;
        text += rect(x, top, width, kBarHeight, fill);
        x += width;
    };
    add(picture.tableBytes, kTableFill);
    add(picture.grainBytes, kHereFill);
    add(picture.deadBytes, kDeadFill);
    return text;
}

__int64 sumOf(MapPicture const& picture, host::GrainPlace place) {
    __int64 bytes = 0;
    for (host::GrainRun const& run : picture.runs)
        bytes += run.place == place ? run.lengthBytes : 0;
    return bytes;
}

std::string drawLegend(MapPicture const& picture, int top) {
    struct Entry {
        char const* fill;
        std::string text;
    };
    Entry const entries[] = {
        {kHereFill, "data here, " + host::formatSize(sumOf(picture, host::GrainPlace::Here))},
        {kParentFill, "in a parent, " + host::formatSize(sumOf(picture, host::GrainPlace::Parent))},
        {kAbsentFill, "nothing, " + host::formatSize(sumOf(picture, host::GrainPlace::Absent))},
        {kTableFill, "tables, " + host::formatSize(picture.tableBytes)},
        {kDeadFill, "dead space, " + host::formatSize(picture.deadBytes)},
    };
    constexpr int kEntryWidth = kColumns * kCellPitch / 5;
    std::string text;
    double x = kMargin;
    for (Entry const& entry : entries) {
        text += rect(x, top, kCellSize, kCellSize, entry.fill);
        text += label(x + kCellSize + 6, top + kCellSize - 2, 12, entry.text);
        x += kEntryWidth;
    }
    return text;
}

std::string openDocument(std::string const& title, int height) {
    std::string const size = std::to_string(kWidth) + " " + std::to_string(height);
    return "<svg xmlns=\"http://www.w3.org/2000/svg\" role=\"img\" viewBox=\"0 0 " + size +
           "\" width=\"" + std::to_string(kWidth) + "\" height=\"" + std::to_string(height) +
           "\" font-family=\"sans-serif\" fill=\"#1c2329\">\n<title>" + escape(title) +
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

std::string drawMap(MapPicture const& picture) {
    __int64 const cellBytes = calcCellBytes(picture);
    std::vector<Cell> const cells = fillCells(picture, cellBytes);
    int const rows = static_cast<int>((cells.size() + kColumns - 1) / kColumns);
    int const barTop = kGridTop + rows * kCellPitch + 38;
    int const legendTop = barTop + kBarHeight + 22;
    return openDocument(picture.title, legendTop + kCellSize + kMargin) +
           label(kMargin, 38, 20, picture.title) +
           label(kMargin, 60, 13,
                 host::formatSize(picture.sizeBytes) + "; each cell is " +
                     host::formatSize(cellBytes) +
                     ", filled by as much as is held; the disk begins at the top left") +
           drawGrid(cells) + drawSpaceBar(picture, barTop) + drawLegend(picture, legendTop) +
           "</svg>\n";
}

} // namespace kelm::tool
