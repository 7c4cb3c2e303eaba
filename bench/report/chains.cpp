#include <algorithm>

#include "bench/report/bench_context.h"
#include "bench/report/measurements.h"
#include "bench/report/work_files.h"

// Reading through child disks that hold nothing of their own: by the library alone, which asks one
// disk after the other, and as everything does that reads whole disks, with the tables of the chain
// merged.

namespace bench {

namespace {

constexpr int kPasses = 2;
constexpr int kRandomReads = 8192;
constexpr int kSmallBytes = 4096;

std::string levelName(int level) {
    return "level" + std::to_string(level) + ".vmdk";
}

/// Makes children on the disk of level 0 until there are `levels`.
void makeChildren(std::filesystem::path const& folder, int from, int levels) {
    yx::P<kelm::host::FileGuard> const files =
        yx::makeObject<kelm::host::FileGuard>(nativeFiles(false).get(), true);
    files->keep();
    for (int level = from; level <= levels; ++level) {
        kelm::host::NewDisk request;
        request.parent = uriOf(folder / levelName(level - 1));
        request.sizeBytes =
            openDisk(folder / levelName(0), yx::IIOStream::ReadOnly)->getSizeBytes();
        kelm::host::SafeDisk::create(files.get(), uriOf(folder / levelName(level)), request);
    }
}

double readOnce(kelm::CVMDKDisk& disk, long long bytes, std::vector<unsigned char>& buffer) {
    return secondsOf([&] {
        for (long long position = 0; position < kPasses * bytes; position += kGrainBytes) {
            if (position % bytes == 0)
                disk.seek(0);
            disk.read(buffer.data(), kGrainBytes);
        }
    });
}

std::unique_ptr<kelm::host::SafeDisk> openMerged(std::filesystem::path const& path) {
    auto disk = std::make_unique<kelm::host::SafeDisk>(nativeFiles().get(), uriOf(path),
                                                       yx::IIOStream::ReadOnly, "");
    disk->mergeChain();
    return disk;
}

double readOnce(kelm::host::SafeDisk& disk, long long bytes, std::vector<unsigned char>& buffer) {
    return secondsOf([&] {
        for (long long position = 0; position < kPasses * bytes; position += kGrainBytes)
            disk.read(position % bytes, buffer.data(), kGrainBytes);
    });
}

double readAtRandom(kelm::host::SafeDisk& disk, std::vector<long long> const& grains,
                    std::vector<unsigned char>& buffer) {
    return secondsOf([&] {
        for (long long const grain : grains)
            disk.read(grain * kGrainBytes + kSmallBytes, buffer.data(), kSmallBytes);
    });
}

void measureMerged(Context& context, std::filesystem::path const& folder, int levels,
                   long long bytes) {
    std::vector<unsigned char> buffer(kGrainBytes);
    std::unique_ptr<kelm::host::SafeDisk> const base = openMerged(folder / levelName(0));
    std::unique_ptr<kelm::host::SafeDisk> const child = openMerged(folder / levelName(levels));
    std::vector<long long> const grains =
        randomGrains(kRandomReads / context.shrink, bytes / kGrainBytes);
    Measurements times;
    for (int round = 0; round <= context.rounds; ++round) {
        double const alone = readOnce(*base, bytes, buffer);
        double const chained = readOnce(*child, bytes, buffer);
        double const aloneAtRandom = readAtRandom(*base, grains, buffer);
        double const chainedAtRandom = readAtRandom(*child, grains, buffer);
        if (round == 0)
            continue;
        times.add("base", alone);
        times.add("chain", chained);
        times.add("base, random", aloneAtRandom);
        times.add("chain, random", chainedAtRandom);
    }
    char const* const plural = levels == 1 ? "" : "s";
    context.report.addFigure(
        {format("sequential read through %d child disk%s, merged", levels, plural),
         formatRate(static_cast<double>(kPasses * bytes), times.median("chain")),
         formatRate(static_cast<double>(kPasses * bytes), times.median("base")),
         times.ratio("base", "chain"), Aim::atLeast(0.8), ""});
    auto const count = static_cast<double>(grains.size());
    context.report.addFigure(
        {format("random read of 4 KiB through %d child disk%s, merged", levels, plural),
         formatSeconds(times.median("chain, random") / count),
         formatSeconds(times.median("base, random") / count),
         times.ratio("base, random", "chain, random"), Aim::atLeast(0.8), ""});
}

} // namespace

void measureChains(Context& context) {
    std::filesystem::path const folder = context.folder / "chain";
    std::filesystem::create_directory(folder);
    long long const bytes = 128 * kMiB / context.shrink;
    makeFullDisk(folder / levelName(0), bytes);
    std::vector<unsigned char> buffer(kGrainBytes);
    auto const grains = static_cast<double>(kPasses * bytes) / kGrainBytes;
    int made = 0;
    for (int const levels : {1, 8, 32, 64}) {
        makeChildren(folder, made + 1, levels);
        made = levels;
        yx::P<kelm::CVMDKDisk> const base =
            openDisk(folder / levelName(0), yx::IIOStream::ReadOnly);
        yx::P<kelm::CVMDKDisk> const child =
            openDisk(folder / levelName(levels), yx::IIOStream::ReadOnly);
        Measurements times;
        for (int round = 0; round <= context.rounds; ++round) {
            double const alone = readOnce(*base, bytes, buffer);
            double const chained = readOnce(*child, bytes, buffer);
            if (round == 0)
                continue;
            times.add("base", alone);
            times.add("chain", chained);
        }
        double const levelSeconds =
            (times.median("chain") - times.median("base")) / grains / levels;
        context.report.addFigure(
            {format("sequential read through %d child disk%s; each level costs %s a grain", levels,
                    levels == 1 ? "" : "s", formatSeconds(std::max(0.0, levelSeconds)).c_str()),
             formatRate(static_cast<double>(kPasses * bytes), times.median("chain")),
             formatRate(static_cast<double>(kPasses * bytes), times.median("base")),
             times.ratio("base", "chain"), levels == 1 ? Aim::atLeast(0.9) : Aim::none(), ""});
        measureMerged(context, folder, levels, bytes);
    }
    std::filesystem::remove_all(folder);
}

} // namespace bench
