#include "bench/report/bench_context.h"
#include "bench/report/measurements.h"
#include "bench/report/work_files.h"

// One thread, the library and nothing else: what the way from a caller's buffer to a file costs.

namespace bench {

namespace {

constexpr int kPasses = 2;

/// Reading takes moments, so it is measured more often than what waits for a device.
constexpr int kReadingRoundsPerRound = 3;
constexpr int kRandomReads = 20000;
constexpr int kSmallBytes = 4096;

/// A device that takes a burst and then slows down would favour whoever always goes first.
void inTurn(int round, Run const& first, Run const& second) {
    round % 2 == 0 ? first() : second();
    round % 2 == 0 ? second() : first();
}

std::string sizeName(long long bytes) {
    return bytes == kMiB ? "1 MiB" : "64 KiB";
}

void readSequentially(Context& context, std::string const& path, long long dataBytes,
                      long long requestBytes) {
    BareFile const bare(path, BareFile::Mode::Read);
    yx::P<kelm::CVMDKDisk> const disk = openDisk(path, yx::IIOStream::ReadOnly);
    long long const dataPosition = fileSizeBytes(path) - dataBytes;
    std::vector<unsigned char> buffer(static_cast<std::size_t>(requestBytes));
    Measurements times;
    // The first round only warms up.
    for (int round = 0; round <= kReadingRoundsPerRound * context.rounds; ++round) {
        double const bareSeconds = secondsOf([&] {
            for (long long position = 0; position < kPasses * dataBytes; position += requestBytes)
                bare.read(buffer.data(), requestBytes, dataPosition + position % dataBytes);
        });
        double const ourSeconds = secondsOf([&] {
            for (long long position = 0; position < kPasses * dataBytes; position += requestBytes) {
                if (position % dataBytes == 0)
                    disk->seek(0);
                disk->read(buffer.data(), static_cast<int>(requestBytes));
            }
        });
        if (round == 0)
            continue;
        times.add("bare", bareSeconds);
        times.add("ours", ourSeconds);
    }
    auto const bytes = static_cast<double>(kPasses * dataBytes);
    context.report.addFigure({"sequential read, plain, " + sizeName(requestBytes),
                              formatRate(bytes, times.median("ours")),
                              formatRate(bytes, times.median("bare")), times.ratio("bare", "ours"),
                              Aim::atLeast(0.90), "finding a grain takes some 1,000 instructions"});
}

void writeSequentially(Context& context, long long dataBytes, long long requestBytes) {
    std::string const barePath = context.folder / "bare.raw";
    std::string const diskPath = context.folder / "written.vmdk";
    std::vector<unsigned char> const bytes = randomBytes(requestBytes);
    Measurements times;
    for (int round = 0; round < context.rounds; ++round) {
        auto const runBare = [&] {
            removeAndSettle(barePath);
            times.time("bare", [&] {
                BareFile const file(barePath, BareFile::Mode::New);
                for (long long position = 0; position < dataBytes; position += requestBytes)
                    file.write(bytes.data(), requestBytes, position);
                file.sync();
            });
        };
        auto const runOurs = [&] {
            yx::P<kelm::CVMDKDisk> const disk = createDisk(diskPath, dataBytes);
            settle(diskPath);
            times.time("ours", [&] {
                for (long long position = 0; position < dataBytes; position += requestBytes)
                    disk->write(bytes.data(), static_cast<int>(requestBytes));
                disk->flushChanges();
            });
        };
        inTurn(round, runBare, runOurs);
    }
    auto const total = static_cast<double>(dataBytes);
    context.report.addFigure({"sequential write, plain, " + sizeName(requestBytes) + ", and sync",
                              formatRate(total, times.median("ours")),
                              formatRate(total, times.median("bare")), times.ratio("bare", "ours"),
                              Aim::atLeast(0.85),
                              "the device decides; its speed varies from second to second"});
    removeAndSettle(barePath);
    removeAndSettle(diskPath);
}

void readAtRandom(Context& context, std::string const& path, long long dataBytes) {
    BareFile const bare(path, BareFile::Mode::Read);
    yx::P<kelm::CVMDKDisk> const disk = openDisk(path, yx::IIOStream::ReadOnly);
    long long const dataPosition = fileSizeBytes(path) - dataBytes;
    std::vector<long long> const grains =
        randomGrains(kRandomReads / context.shrink, dataBytes / kGrainBytes);
    std::vector<unsigned char> buffer(kGrainBytes);
    Measurements times;
    for (int round = 0; round <= kReadingRoundsPerRound * context.rounds; ++round) {
        double const bareSeconds = secondsOf([&] {
            for (long long const grain : grains)
                bare.read(buffer.data(), kGrainBytes, dataPosition + grain * kGrainBytes);
        });
        double const ourSeconds = secondsOf([&] {
            for (long long const grain : grains) {
                disk->seek(grain * kGrainBytes + kSmallBytes);
                disk->read(buffer.data(), kSmallBytes);
            }
        });
        if (round == 0)
            continue;
        times.add("bare", bareSeconds);
        times.add("ours", ourSeconds);
    }
    auto const count = static_cast<double>(grains.size());
    context.report.addFigure({"random read of 4 KiB, plain, and its limit: `pread` of the grain",
                              formatSeconds(times.median("ours") / count),
                              formatSeconds(times.median("bare") / count),
                              times.ratio("bare", "ours"), Aim::atLeast(0.90), ""});
}

} // namespace

void measurePlainDisk(Context& context) {
    long long const dataBytes = 256 * kMiB / context.shrink;
    std::string const path = context.folder / "plain.vmdk";
    makeFullDisk(path, dataBytes);
    readSequentially(context, path, dataBytes, kGrainBytes);
    readSequentially(context, path, dataBytes, kMiB);
    readAtRandom(context, path, dataBytes);
    removeAndSettle(path);
    writeSequentially(context, dataBytes / 2, kGrainBytes);
    writeSequentially(context, dataBytes / 2, kMiB);
}

void measureRandomWrites(Context& context) {
    constexpr int kWrites = 1024;
    constexpr int kWritesPerFlush = 256;
    long long const dataBytes = 256 * kMiB / context.shrink;
    std::string const diskPath = context.folder / "random.vmdk";
    std::string const barePath = context.folder / "random.raw";
    makeFullDisk(diskPath, dataBytes);
    std::filesystem::copy_file(diskPath, barePath);
    settle(barePath);
    long long const dataPosition = fileSizeBytes(diskPath) - dataBytes;
    std::vector<long long> const grains =
        randomGrains(kWrites / context.shrink, dataBytes / kGrainBytes);
    std::vector<unsigned char> const bytes = randomBytes(kGrainBytes, 3);
    yx::P<kelm::CVMDKDisk> const disk = openDisk(diskPath, yx::IIOStream::ReadWrite);
    BareFile const bare(barePath, BareFile::Mode::Update);
    Measurements times;
    for (int round = 0; round < context.rounds; ++round) {
        auto const runBare = [&] {
            settle(barePath);
            times.time("bare", [&] {
                int count = 0;
                for (long long const grain : grains) {
                    bare.write(bytes.data(), kGrainBytes, dataPosition + grain * kGrainBytes);
                    if (++count % kWritesPerFlush == 0)
                        bare.sync();
                }
            });
        };
        auto const runOurs = [&] {
            settle(diskPath);
            times.time("ours", [&] {
                int count = 0;
                for (long long const grain : grains) {
                    disk->seek(grain * kGrainBytes + kSmallBytes);
                    disk->write(bytes.data(), kSmallBytes);
                    if (++count % kWritesPerFlush == 0)
                        disk->flushChanges();
                }
            });
        };
        inTurn(round, runBare, runOurs);
    }
    auto const count = static_cast<double>(grains.size());
    context.report.addFigure({"random write of 4 KiB, plain, flush every 256, and its limit: "
                              "`pwrite` of the grain, `fdatasync` every 256",
                              formatSeconds(times.median("ours") / count),
                              formatSeconds(times.median("bare") / count),
                              times.ratio("bare", "ours"), Aim::atLeast(0.80),
                              "the device decides; its speed varies from second to second"});
    removeAndSettle(barePath);
    removeAndSettle(diskPath);
}

} // namespace bench
