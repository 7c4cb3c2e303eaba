#include <atomic>
#include <thread>

#include "bench/report/bench_context.h"
#include "bench/report/image.h"
#include "bench/report/machine.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"
#include "krym/hasher_sha256.h"

// What digests cost while a disk is filled, and what they spare when a day is imported over a chain.

namespace bench {

namespace {

constexpr double kMaxMemoryBytes = 128.0 * kMiB;

/// Reads a file and hashes each grain, on all cores at once.
void hashFile(std::string const& path) {
    long long const grains = fileSizeBytes(path) / kGrainBytes;
    std::atomic<long long> next = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < coreCount(); ++i) {
        threads.emplace_back([&] {
            BareFile const file(path, BareFile::Mode::Read);
            krym::CHasher_SHA256 hasher;
            std::vector<unsigned char> grain(kGrainBytes);
            unsigned char hash[krym::CHasher_SHA256::kHashSizeBytes];
            for (long long index = next++; index < grains; index = next++) {
                file.read(grain.data(), kGrainBytes, index * kGrainBytes);
                hasher.begin();
                hasher.update(grain.data(), kGrainBytes);
                hasher.finish(hash);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

/// Fills each of so many grains with other bytes, one in every `distance`.
void changeGrains(std::string const& path, int distance, long long first, unsigned int seed) {
    std::vector<unsigned char> const bytes = randomBytes(kGrainBytes, seed);
    long long const grains = fileSizeBytes(path) / kGrainBytes;
    BareFile const file(path, BareFile::Mode::Update);
    for (long long grain = first; grain < grains; grain += distance)
        file.write(bytes.data(), kGrainBytes, grain * kGrainBytes);
}

class DigestBench {
public:
    explicit DigestBench(Context& context)
        : m_context(context), m_folder(context.getQuietFolder() / "digests") {
        std::filesystem::create_directory(m_folder);
    }
    DigestBench(DigestBench const&) = delete;
    DigestBench& operator=(DigestBench const&) = delete;
    ~DigestBench() { std::filesystem::remove_all(m_folder); }

    void run() {
        writeImage();
        measureFilling();
        measureChains();
        std::filesystem::remove_all(m_folder);
        std::filesystem::create_directory(m_folder);
        measureChangedLists();
        measureMemory();
    }

private:
    std::string path(std::string const& name) const { return m_folder / name; }

    std::string levelName(int level) const {
        return path("level" + std::to_string(level) + ".vmdk");
    }

    void removeDisk(std::string const& disk) const {
        std::filesystem::remove(disk);
        std::filesystem::remove(disk + ".digests");
    }

    /// The grains of the image that hold something, without the holes between them.
    void writeImage() const {
        BareFile const file(path("day.raw"), BareFile::Mode::New);
        long long position = 0;
        for (yx::P<Buffer> const& grain : readGrains(m_context.folder / "image.raw")) {
            file.write(grain->getData(), kGrainBytes, position);
            position += kGrainBytes;
        }
    }

    /// What an import took, whose disk goes again.
    ProcessUse import(std::vector<std::string> const& options) const {
        std::string const target = path("new.vmdk");
        makeMemoryReady();
        std::vector<std::string> command = {m_context.tool, "import", path("day.raw"), target};
        command.insert(command.end(), options.begin(), options.end());
        ProcessUse const use = runProgram(command);
        removeDisk(target);
        return use;
    }

    void measureFilling() {
        Measurements times;
        std::string const copy = path("copy.raw");
        std::string const checked = path("checked.vmdk");
        runProgram({m_context.tool, "import", path("day.raw"), checked});
        for (int round = 0; round <= m_context.rounds; ++round) {
            if (round == 1)
                times = Measurements();
            for (char const* const kind : {"plain", "compressed"}) {
                std::vector<std::string> options;
                if (std::string(kind) == "compressed")
                    options.emplace_back("--compressed");
                times.add(std::string(kind) + " with", import(options).seconds);
                options.emplace_back("--no-digests");
                times.add(std::string(kind) + " without", import(options).seconds);
            }
            makeMemoryReady();
            times.time("copy", [&] {
                runProgram({"cp", "--sparse=always", path("day.raw"), copy});
            });
            std::filesystem::remove(copy);
            times.time("hash", [&] { hashFile(path("day.raw")); });
            times.add("check", runProgram({m_context.tool, "check", checked}).seconds);
        }
        removeDisk(checked);
        auto const bytes = static_cast<double>(fileSizeBytes(path("day.raw")));
        m_context.report.addFigure({"compressed import with digests, and without",
                                    formatRate(bytes, times.median("compressed with")),
                                    formatRate(bytes, times.median("compressed without")),
                                    times.ratio("compressed without", "compressed with"),
                                    Aim::atLeast(0.85), ""});
        m_context.report.addFigure({"check of a plain disk with digests, and SHA-256 on all cores",
                                    formatRate(bytes, times.median("check")),
                                    formatRate(bytes, times.median("hash")),
                                    times.ratio("hash", "check"), Aim::atLeast(0.9), ""});
        bool const copyIsSlower = times.median("copy") > times.median("hash");
        char const* const slower = copyIsSlower ? "copy" : "hash";
        m_context.report.addFigure(
            {std::string(
                 "plain import with digests, and the slower of SHA-256 on all cores and `cp` "
                 "(here: ") +
                 (copyIsSlower ? "`cp`)" : "SHA-256)"),
             formatRate(bytes, times.median("plain with")), formatRate(bytes, times.median(slower)),
             times.ratio(slower, "plain with"), Aim::atLeast(0.9), ""});
        m_context.report.addFigure({"plain import with digests, and without",
                                    formatRate(bytes, times.median("plain with")),
                                    formatRate(bytes, times.median("plain without")),
                                    times.ratio("plain without", "plain with"), Aim::none(), ""});
    }

    /// A day of which one grain in a hundred differs, over chains of such days.
    void measureChains() {
        runProgram({m_context.tool, "import", path("day.raw"), levelName(0)});
        auto const bytes = static_cast<double>(fileSizeBytes(path("day.raw")));
        int made = 0;
        double first = 0;
        for (int const levels : {1, 8, 64}) {
            for (; made + 1 < levels; ++made) {
                changeGrains(path("day.raw"), 100, made, static_cast<unsigned int>(made));
                runProgram({m_context.tool, "import", path("day.raw"), levelName(made + 1),
                            "--parent", levelName(made)});
            }
            changeGrains(path("day.raw"), 100, 99, static_cast<unsigned int>(1000 + levels));
            Measurements times;
            for (int round = 0; round < m_context.rounds; ++round) {
                times.add("import", import({"--parent", levelName(made)}).seconds);
                times.time("hash", [&] { hashFile(path("day.raw")); });
            }
            double const seconds = times.median("import");
            std::string exponent;
            if (levels == 1)
                first = seconds;
            else
                exponent = format("; exponent from one disk on: %.2f",
                                  growthExponent(1, first, levels, seconds));
            m_context.report.addFigure(
                {format(
                     "import of a day with 1 %% changed over %d disk%s, and SHA-256 on all cores",
                     levels, levels == 1 ? "" : "s") +
                     exponent,
                 formatRate(bytes, seconds), formatRate(bytes, times.median("hash")),
                 times.ratio("hash", "import"), Aim::atLeast(0.9), ""});
        }
    }

    void measureChangedLists() {
        long long const grains = 4 * kGiB / m_context.shrink / kGrainBytes;
        std::string const raw = path("day.raw");
        std::filesystem::resize_file((BareFile(raw, BareFile::Mode::New), raw),
                                     static_cast<std::uintmax_t>(grains * kGrainBytes));
        changeGrains(raw, 8, 0, 1);
        runProgram({m_context.tool, "import", raw, levelName(0)});
        std::vector<std::vector<std::string>> rows;
        double previous = 0;
        for (int const percent : {1, 8, 64}) {
            writeList(percent, grains);
            changeGrains(raw, 100 / percent + (100 % percent ? 1 : 0), 0, 2);
            Measurements times;
            for (int round = 0; round < m_context.rounds; ++round)
                times.add("import",
                          import({"--parent", levelName(0), "--changed", path("list")}).seconds);
            double const seconds = times.median("import");
            rows.push_back(
                {format("%d %%", percent), formatSeconds(seconds),
                 previous > 0 ? format("%.2f", growthExponent(1, previous, 8, seconds)) : ""});
            previous = seconds;
        }
        m_context.report.addTable(
            {format("so much changed of %s, by a list of ranges",
                    formatBytes(static_cast<double>(grains * kGrainBytes)).c_str()),
             "import", "exponent"},
            rows);
        removeDisk(levelName(0));
        std::filesystem::remove(raw);
    }

    /// A line for each changed grain, so many in a hundred, spread over the image.
    void writeList(int percent, long long grains) {
        std::string text;
        for (long long grain = 0; grain < grains; ++grain) {
            if (grain * percent % 100 < percent)
                text += format("%lld %d\n", grain * kGrainBytes, kGrainBytes);
        }
        BareFile(path("list"), BareFile::Mode::New)
            .write(text.data(), static_cast<long long>(text.size()), 0);
    }

    /// Of an image that is nearly all hole.
    void measureMemory() {
        long long const bytes = 4096 * kGiB / m_context.shrink;
        std::string const raw = path("day.raw");
        std::filesystem::resize_file((BareFile(raw, BareFile::Mode::New), raw),
                                     static_cast<std::uintmax_t>(bytes));
        {
            std::vector<unsigned char> const content = randomBytes(kGrainBytes);
            BareFile const file(raw, BareFile::Mode::Update);
            for (long long position = 0; position < bytes; position += 4 * kGiB)
                file.write(content.data(), kGrainBytes, position);
        }
        std::vector<std::string> const kind = {"--split", "64G", "--on-demand", "--allow-oversize"};
        std::vector<std::string> command = {m_context.tool, "import", raw, levelName(0)};
        command.insert(command.end(), kind.begin(), kind.end());
        ProcessUse const full = runProgram(command);
        std::vector<std::string> options = {"--parent", levelName(0)};
        options.insert(options.end(), kind.begin(), kind.end());
        ProcessUse const day = import(options);
        for (auto const& [name, use] :
             {std::pair("full import of a sparse image of 4 TiB, peak memory", full),
              std::pair("import of the same over it, peak memory", day)}) {
            m_context.report.addFigure({name, formatBytes(static_cast<double>(use.peakMemoryBytes)),
                                        formatBytes(kMaxMemoryBytes),
                                        static_cast<double>(use.peakMemoryBytes) / kMaxMemoryBytes,
                                        Aim::atMost(1.0), ""});
        }
    }

    Context& m_context;
    std::filesystem::path m_folder;
};

} // namespace

void measureDigests(Context& context) {
    DigestBench(context).run();
}

} // namespace bench
