#include <algorithm>
#include <cmath>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench/report/bench_context.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"
#include "bench/report/work_files.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/data_in_stream.h"

// What opening a disk costs, and how fast it is done with nothing to do but read what must be read.

namespace bench {

namespace {

/// A stretch of a file that opening must read.
struct Piece {
    std::string path;
    long long position;
    long long bytes;
};

constexpr long long kSectorBytes = 512;

/// What opening must read of a disk: the header, the descriptor, both grain directories, and the
/// sector that says whether there are slot sizes.
std::vector<Piece> piecesOf(std::string const& mainPath) {
    std::vector<Piece> pieces;
    yx::P<kelm::CVMDKDisk> const disk = openDisk(mainPath, yx::IIOStream::ReadOnly);
    std::string const extentPath = yx::toNativePath(disk->getFirstExtentFileURI()).toStdString();
    kelm::CVMDKSparseExtentHeader header;
    yx::P<yx::IIOStream> const stream = kelm::openVMDKFileStream(
        nativeFiles().get(), disk->getFirstExtentFileURI(), yx::IIOStream::ReadOnly);
    yx::CDataInStream in(stream.get());
    header.load(in);

    pieces.push_back({extentPath, 0, kSectorBytes});
    if (extentPath == mainPath)
        pieces.push_back(
            {mainPath, static_cast<long long>(header.getDescriptorOffsetSectors()) * kSectorBytes,
             static_cast<long long>(header.getDescriptorSizeSectors()) * kSectorBytes});
    else
        pieces.push_back({mainPath, 0, fileSizeBytes(mainPath)});
    long long const grains = static_cast<long long>(header.getCapacitySectors()) /
                             static_cast<long long>(header.getGrainSizeSectors());
    long long const tables = (grains + header.getGrainTableEntryCount() - 1) /
                             static_cast<long long>(header.getGrainTableEntryCount());
    for (unsigned long long const sector : {header.getGrainDirectoryOffsetSectors(),
                                            header.getRedundantGrainDirectoryOffsetSectors()})
        pieces.push_back({extentPath, static_cast<long long>(sector) * kSectorBytes, tables * 4});
    pieces.push_back(
        {extentPath,
         static_cast<long long>(header.getOverheadSectors()) * kSectorBytes - kSectorBytes,
         kSectorBytes});
    return pieces;
}

/// Opens each file once and reads the pieces of it.
void readPieces(std::vector<Piece> const& pieces, std::vector<unsigned char>& buffer) {
    std::set<std::string> paths;
    for (Piece const& piece : pieces)
        paths.insert(piece.path);
    for (std::string const& path : paths) {
        BareFile const file(path, BareFile::Mode::Read);
        for (Piece const& piece : pieces) {
            if (piece.path == path)
                file.read(buffer.data(), piece.bytes, piece.position);
        }
    }
}

/// What the lock file of a disk costs at least: it is made, locked, looked at by its name, and
/// removed.
void takeAndLeaveLock(std::string const& path) {
    int const file = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    struct flock range = {};
    range.l_type = F_RDLCK;
    range.l_len = 1;
    struct stat status = {};
    bool const done = file >= 0 && ::fcntl(file, F_OFD_SETLK, &range) == 0 &&
                      ::stat(path.c_str(), &status) == 0 && ::unlink(path.c_str()) == 0 &&
                      ::close(file) == 0;
    if (!done)
        fail("cannot lock " + path);
}

void measureOne(Context& context, std::string const& name, std::string const& path,
                std::vector<std::vector<std::string>>& callRows) {
    std::vector<Piece> const pieces = piecesOf(path);
    long long bytes = 0;
    for (Piece const& piece : pieces)
        bytes += piece.bytes;
    std::vector<unsigned char> buffer(static_cast<std::size_t>(bytes));
    auto const open = [&path] { openDisk(path, yx::IIOStream::ReadOnly); };
    int const repeats = std::max(10, static_cast<int>(std::lround(0.05 / secondsOf(open))));
    Measurements times;
    for (int round = 0; round <= context.rounds; ++round) {
        double const bare = secondsOf([&] {
            for (int i = 0; i < repeats; ++i)
                readPieces(pieces, buffer);
        });
        double const lock = secondsOf([&] {
            for (int i = 0; i < repeats; ++i)
                takeAndLeaveLock(path + ".lock");
        });
        double const ours = secondsOf([&] {
            for (int i = 0; i < repeats; ++i)
                open();
        });
        if (round == 0)
            continue;
        times.add("bare", bare / repeats);
        times.add("bare and lock", (bare + lock) / repeats);
        times.add("ours", ours / repeats);
    }
    context.report.addFigure(
        {name, formatSeconds(times.median("ours")),
         formatSeconds(times.median("bare")) + " for " + formatBytes(static_cast<double>(bytes)),
         times.ratio("ours", "bare"), Aim::atMost(1.5),
         "a fixed part: the lock file, and the descriptor's text; see the next line and "
         "docs/performance.md"});
    context.report.addFigure({name + ", and the lock file in the limit too",
                              formatSeconds(times.median("ours")),
                              formatSeconds(times.median("bare and lock")),
                              times.ratio("ours", "bare and lock"), Aim::none(), ""});
    callRows.push_back({name, formatSystemCalls(countSystemCalls(open))});
}

void measureInfo(Context& context, std::string const& path) {
    Measurements times;
    for (int round = 0; round < context.rounds; ++round)
        times.add("info", runProgram({context.tool, "info", path}).seconds);
    for (int round = 0; round < context.rounds; ++round)
        times.add("start", runProgram({context.tool, "--version"}).seconds);
    context.report.addFigure({"`kelm info` of a disk of 2 TiB, and `kelm --version`",
                              formatSeconds(times.median("info")),
                              formatSeconds(times.median("start")), times.ratio("info", "start"),
                              Aim::none(), ""});
}

} // namespace

void measureOpening(Context& context) {
    struct Case {
        char const* name;
        long long sizeBytes;
        long long fileSizeLimitBytes;
    };
    constexpr Case kCases[] = {
        {"opening a disk of 2 GiB", 2 * kGiB, -1},
        {"opening a disk of 64 GiB", 64 * kGiB, -1},
        {"opening a disk of 2 TiB", 2048 * kGiB, -1},
        {"opening a split disk of 1,024 extents", 1024 * 2047 * kMiB, 2048 * kMiB},
    };
    std::filesystem::path const folder = context.folder / "opening";
    std::filesystem::create_directory(folder);
    std::vector<std::vector<std::string>> callRows;
    for (Case const& size : kCases) {
        std::string const path = folder / "disk.vmdk";
        createDisk(path, size.sizeBytes, {.fileSizeLimitBytes = size.fileSizeLimitBytes}, false);
        settle(path);
        measureOne(context, size.name, path, callRows);
        if (size.sizeBytes == 2048 * kGiB)
            measureInfo(context, path);
        std::filesystem::remove_all(folder);
        std::filesystem::create_directory(folder);
    }
    std::filesystem::remove_all(folder);
    context.report.addText("System calls of one opening and closing, counted by tracing a child "
                           "process between two marks:");
    context.report.addTable({"", "system calls"}, callRows);
}

} // namespace bench
