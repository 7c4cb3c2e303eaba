#include "bench/report/bench_context.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"
#include "bench/report/work_files.h"
#include "host/transfer/transfer.h"

// Times at three sizes, a factor of eight apart. What only grows in proportion has an exponent of 1
// at most; the first steps are lower where a fixed part shows. The files are in memory if there is
// room, since a device does not keep in proportion.

namespace bench {

namespace {

constexpr double kFactor = 8;

/// Prints a line of a size, a time each, and both exponents.
class GrowthTable {
public:
    using Prepare = std::function<Run(int step)>;

    explicit GrowthTable(Context& context) : m_context(context) {}

    /// `prepare` makes ready for the size of a step, 0 to 2, and returns what is timed, `repeats`
    /// times in one measurement.
    void add(std::string const& name, std::vector<std::string> const& sizes, int repeats,
             Prepare const& prepare) {
        std::vector<double> medians;
        for (int step = 0; step < 3; ++step) {
            Measurements times;
            for (int round = 0; round < m_context.rounds; ++round) {
                Run const run = prepare(step);
                times.add("", secondsOf([&] {
                                  for (int i = 0; i < repeats; ++i)
                                      run();
                              }) / repeats);
            }
            medians.push_back(times.median(""));
        }
        std::vector<std::string> row = {name};
        for (std::size_t i = 0; i < medians.size(); ++i)
            row.push_back(sizes[i] + ": " + formatSeconds(medians[i]));
        row.push_back(format("%.2f", growthExponent(1, medians[0], kFactor, medians[1])));
        row.push_back(format("%.2f", growthExponent(1, medians[1], kFactor, medians[2])));
        m_rows.push_back(row);
    }

    void print() {
        m_context.report.addTable({"", "size and time", "8 times that", "64 times that",
                                   "exponent of the first step", "of the second"},
                                  m_rows);
    }

private:
    Context& m_context;
    std::vector<std::vector<std::string>> m_rows;
};

long long sizeAt(long long first, int step) {
    return first << (3 * step);
}

std::vector<std::string> sizesFrom(long long first) {
    std::vector<std::string> names;
    for (int step = 0; step < 3; ++step)
        names.push_back(formatBytes(static_cast<double>(sizeAt(first, step))));
    return names;
}

void makeRawFile(std::string const& path, long long bytes) {
    std::vector<unsigned char> const content = randomBytes(kMiB);
    BareFile const file(path, BareFile::Mode::New);
    for (long long position = 0; position < bytes; position += kMiB)
        file.write(content.data(), kMiB, position);
}

void addTransfers(Context& context, GrowthTable& table) {
    long long const first = 4 * kMiB;
    std::string const raw = context.getQuietFolder() / "growth.raw";
    std::string const path = context.getQuietFolder() / "growth.vmdk";
    yx::P<yx::CNativeFileSystem> const files = nativeFiles(false);
    auto const import = [&] {
        kelm::host::SafeDisk disk(files.get(), uriOf(path), yx::IIOStream::ReadWrite, "");
        kelm::host::RawSource source(raw);
        kelm::host::importRaw(source, disk, {});
    };
    table.add("import", sizesFrom(first), 1, [&](int step) {
        makeRawFile(raw, sizeAt(first, step));
        createDisk(path, sizeAt(first, step), {}, false);
        makeMemoryReady();
        return import;
    });
    std::string const out = context.getQuietFolder() / "growth.out";
    table.add("export", sizesFrom(first), 1, [&](int step) {
        makeFullDisk(path, sizeAt(first, step));
        std::filesystem::remove(out);
        makeMemoryReady();
        return [&] {
            kelm::host::SafeDisk disk(files.get(), uriOf(path), yx::IIOStream::ReadOnly, "");
            kelm::host::RawTarget target(out, true);
            kelm::host::exportRaw(disk, target, {});
        };
    });
    for (std::string const& file : {raw, path, out})
        std::filesystem::remove(file);
}

void addOpening(Context& context, GrowthTable& table) {
    long long const first = 32 * kGiB;
    std::string const path = context.getQuietFolder() / "growth.vmdk";
    table.add("open", sizesFrom(first), 20, [&](int step) {
        createDisk(path, sizeAt(first, step), {}, false);
        settle(path);
        return [path] { openDisk(path, yx::IIOStream::ReadOnly); };
    });
    table.add("gatherSpaceInfo", sizesFrom(first), 1, [&](int step) {
        createDisk(path, sizeAt(first, step), {}, false);
        settle(path);
        yx::P<kelm::CVMDKDisk> const disk = openDisk(path, yx::IIOStream::ReadOnly);
        return [disk] { disk->gatherSpaceInfo(); };
    });
    std::filesystem::remove(path);
}

/// A disk with a cache without limit, of which a grain of so many tables was written.
yx::P<kelm::CVMDKDisk> makeReachedDisk(std::string const& path, long long tables) {
    constexpr long long kTableReachBytes = 32 * kMiB;
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    yx::P<kelm::CVMDKDisk> const disk =
        yx::makeObject<kelm::CVMDKDisk>(nativeFiles(false).get(), uriOf(path),
                                        yx::IIOStream::ReadWrite, "", -1, cache.get(), nullptr);
    unsigned char const byte = 1;
    for (long long table = 0; table < tables; ++table) {
        disk->seek(table * kTableReachBytes);
        disk->write(&byte, 1);
    }
    return disk;
}

void addFlush(Context& context, GrowthTable& table) {
    std::string const path = context.getQuietFolder() / "growth.vmdk";
    long long const first = 64;
    std::vector<std::string> const sizes = {"64 tables", "512 tables", "4096 tables"};
    auto const makeEmpty = [&path] { createDisk(path, 128 * kGiB, {}, false); };
    table.add("flush of so many changed tables", sizes, 1, [&](int step) {
        makeEmpty();
        yx::P<kelm::CVMDKDisk> const disk = makeReachedDisk(path, sizeAt(first, step));
        return [disk] { disk->flushChanges(); };
    });
    table.add("flush with nothing changed, so many tables in memory", sizes, 1000, [&](int step) {
        makeEmpty();
        yx::P<kelm::CVMDKDisk> const disk = makeReachedDisk(path, sizeAt(first, step));
        disk->flushChanges();
        return [disk] { disk->flushChanges(); };
    });
    std::filesystem::remove(path);
}

} // namespace

void measureGrowth(Context& context) {
    GrowthTable table(context);
    addTransfers(context, table);
    addOpening(context, table);
    addFlush(context, table);
    table.print();
}

} // namespace bench
