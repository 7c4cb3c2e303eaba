// soak [--seconds <n>] [--disks <n>] [--seed <n>] [--tamper]
//
// Makes one disk after the other, of every kind, in the folder for temporary files. Several
// processes contend for each, write to it and read it, and are killed at any moment; what the disk
// then holds is compared with a model. Goes on for so many seconds or disks. Prints the seed and
// the counts; ends with 1 if a promise was broken, with the disk's files left where they are.
//
// The seed decides on the disks and on what each process does; which of them is killed when, and
// who gets a disk first, the machine decides.
//
// --tamper damages the first disk behind the processes' back, to see that it is noticed.

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string_view>
#include <system_error>
#include <utility>

#include <sys/wait.h>
#include <unistd.h>

#include "host/store/file_names.h"
#include "tests/soak/program/worker.h"
#include "yx/log.h"

namespace soak {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int kViolated = 1;
constexpr int kUsage = 2;
constexpr int kMaxHangSeconds = 120;

struct Options {
    int seconds = 60;
    int disks = 0; ///< 0 for as many as there is time for
    unsigned int seed = 0;
    bool tampers = false;
};

/// Runs `body` in a process of its own, which says on standard error what was violated.
pid_t start(std::function<void()> const& body) {
    std::fflush(nullptr);
    pid_t const id = ::fork();
    if (id < 0)
        throw std::system_error(errno, std::generic_category(), "fork");
    if (id > 0)
        return id;
    int exitCode = 0;
    try {
        body();
    } catch (Violation const& violation) {
        std::fprintf(stderr, "%s\n", violation.text().c_str());
        exitCode = kViolated;
    } catch (std::exception const& error) {
        std::fprintf(stderr, "unexpected error: %s\n", error.what());
        exitCode = kViolated;
    }
    std::fflush(nullptr);
    ::_exit(exitCode);
}

/// Waits for a process. Throws `Violation` if it ends in any other way than well.
void finish(pid_t id) {
    int status = 0;
    auto const deadline = Clock::now() + std::chrono::seconds(kMaxHangSeconds);
    while (::waitpid(id, &status, WNOHANG) == 0) {
        if (Clock::now() > deadline) {
            ::kill(id, SIGKILL);
            ::waitpid(id, &status, 0);
            throw Violation("a process hangs");
        }
        ::usleep(1000);
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        throw Violation("a process failed (wait status " + std::to_string(status) + ")");
}

/// A disk and the processes around it.
class Siege {
public:
    Siege(fs::path folder, DiskKind const& kind, Counts& counts, unsigned int seed)
        : m_folder(std::move(folder)), m_kind(kind), m_counts(counts), m_random(seed) {
        // Syncing takes most of the time, and a killed process takes nothing along that was
        // written.
        constexpr int kSyncEvery = 4;
        m_flush = draw(kSyncEvery) == 0 ? yx::NativeFlush::ToDevice : yx::NativeFlush::ToSystem;
    }

    Siege(Siege const&) = delete;
    Siege& operator=(Siege const&) = delete;

    /// Kills what a violation left running.
    ~Siege() {
        for (Process const& process : m_processes) {
            if (process.id > 0 && ::kill(process.id, SIGKILL) == 0)
                ::waitpid(process.id, nullptr, 0);
        }
    }

    void run(bool tampers) {
        finish(start([this] { makeDisk(); }));
        finishAlone();
        if (tampers)
            tamper();
        besiege();
        finishAlone();
    }

private:
    int draw(int below) { return static_cast<int>(m_random() % static_cast<unsigned int>(below)); }

    yx::CURI uriOf(char const* name) const {
        return kelm::host::uriFromArgument((m_folder / name).string());
    }

    void makeDisk() {
        yx::P<kelm::host::FileGuard> const files = yx::makeObject<kelm::host::FileGuard>(
            yx::makeObject<yx::CNativeFileSystem>(m_flush).get(), false);
        files->keep();
        kelm::host::NewDisk request = toRequest(m_kind);
        if (m_kind.hasParent) {
            kelm::host::NewDisk parent = request;
            parent.fileSizeLimitBytes = -1;
            parent.createExtentFilesOnDemand = false;
            request.parent = uriOf("parent.vmdk");
            fillParent(*kelm::host::SafeDisk::create(files.get(), request.parent, parent));
        }
        kelm::host::SafeDisk::create(files.get(), uriOf("disk.vmdk"), request);
    }

    /// Every other grain; the child starts from there.
    void fillParent(kelm::host::SafeDisk& disk) {
        std::vector<unsigned char> bytes(std::size_t{kGrainSectors} * kSectorSizeBytes);
        for (int first = 0; first < kSectorCount; first += 2 * kGrainSectors) {
            Stamp const stamp = ++m_model.lastStamp;
            fillSectors(bytes.data(), first, kGrainSectors, stamp);
            disk.write(__int64{first} * kSectorSizeBytes, bytes.data(),
                       static_cast<int>(bytes.size()));
            std::fill_n(m_model.flushed.begin() + first, kGrainSectors, stamp);
        }
        disk.flush();
    }

    Worker::Settings nextSettings(int slot) {
        return {uriOf("disk.vmdk"), m_kind, m_flush,
                ++m_lastProcess,    slot,   static_cast<unsigned int>(m_random())};
    }

    void finishAlone() {
        Worker::Settings const settings = nextSettings(0);
        finish(start([&] { Worker(m_model, m_counts, settings).runOnceAlone(); }));
    }

    void startWorker(int slot) {
        Worker::Settings const settings = nextSettings(slot);
        m_processes[static_cast<std::size_t>(slot)] = {
            start([&] { Worker(m_model, m_counts, settings).run(); }), settings.process};
    }

    void besiege() {
        constexpr int kMaxKills = 30;
        constexpr int kMaxPauseMicroseconds = 40000;
        for (int slot = 0; slot < kSlots; ++slot)
            startWorker(slot);
        for (int left = 5 + draw(kMaxKills); left > 0; --left) {
            ::usleep(static_cast<useconds_t>(draw(kMaxPauseMicroseconds)));
            int const slot = draw(kSlots);
            killWorker(slot);
            startWorker(slot);
        }
        m_model.isStopping = true;
        for (Process& process : m_processes)
            finish(std::exchange(process.id, 0));
    }

    void killWorker(int slot) {
        Process& process = m_processes[static_cast<std::size_t>(slot)];
        m_model.killed[static_cast<std::size_t>(process.number)] = true;
        ::kill(process.id, SIGKILL);
        int status = 0;
        ::waitpid(std::exchange(process.id, 0), &status, 0);
        if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGKILL)
            throw Violation("a process failed (wait status " + std::to_string(status) + ")");
        ++m_counts.kills;
        if (m_model.writer == process.number)
            ++m_counts.killedWriters;
    }

    /// Overwrites everything behind the metadata.
    void tamper() {
        constexpr int kMetadataBytes = kGrainSectors * kSectorSizeBytes;
        fs::path const file = m_folder / "disk.vmdk";
        auto const sizeBytes = static_cast<std::size_t>(fs::file_size(file));
        std::fstream stream(file, std::ios::binary | std::ios::in | std::ios::out);
        stream.seekp(kMetadataBytes);
        stream << std::string(sizeBytes - kMetadataBytes, '\x5a');
    }

    struct Process {
        pid_t id = 0;
        int number = 0;
    };

    fs::path m_folder;
    DiskKind const& m_kind;
    Counts& m_counts;
    Shared<SharedModel> const m_shared;
    SharedModel& m_model = *m_shared;
    std::mt19937 m_random;
    yx::NativeFlush m_flush;
    int m_lastProcess = 0;
    std::array<Process, kSlots> m_processes;
};

void print(Options const& options, Counts const& counts, int disks) {
    std::printf("seed %u: %d disks, %lld openings for writing, %lld for reading, %lld refused, "
                "%lld writes, %lld flushes, %lld processes killed, %lld of them writing, %lld "
                "sectors compared, %lld checks without findings, %lld rewrites broken off\n",
                options.seed, disks, counts.writerOpenings.load(), counts.readerOpenings.load(),
                counts.refusals.load(), counts.writes.load(), counts.flushes.load(),
                counts.kills.load(), counts.killedWriters.load(), counts.sectorsCompared.load(),
                counts.cleanChecks.load(), counts.brokenOffRewrites.load());
}

int runSoak(Options const& options) {
    Shared<Counts> const shared;
    Counts& counts = *shared;
    auto const deadline = Clock::now() + std::chrono::seconds(options.seconds);
    fs::path const base = fs::temp_directory_path() / ("kelm-soak-" + std::to_string(::getpid()));
    std::mt19937 random(options.seed);
    std::vector<DiskKind> const& kinds = allDiskKinds();
    int disks = 0;
    auto const goesOn = [&] {
        return options.disks > 0 ? disks < options.disks : Clock::now() < deadline;
    };
    while (goesOn()) {
        DiskKind const& kind = kinds[static_cast<std::size_t>(disks) % kinds.size()];
        fs::create_directories(base);
        try {
            Siege(base, kind, counts, static_cast<unsigned int>(random()))
                .run(options.tampers && disks == 0);
        } catch (Violation const& violation) {
            std::fprintf(stderr, "VIOLATION on disk %d (%s): %s; its files are in %s\n", disks,
                         kind.name, violation.text().c_str(), base.c_str());
            print(options, counts, disks);
            return kViolated;
        }
        fs::remove_all(base);
        ++disks;
    }
    print(options, counts, disks);
    return 0;
}

std::optional<unsigned int> parseNumber(std::string_view text) {
    unsigned int value = 0;
    auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

std::optional<Options> parse(int argc, char** argv) {
    Options options;
    options.seed = std::random_device()();
    for (int i = 1; i < argc; ++i) {
        std::string_view const name = argv[i];
        if (name == "--tamper") {
            options.tampers = true;
            continue;
        }
        if (++i == argc)
            return std::nullopt;
        std::optional<unsigned int> const value = parseNumber(argv[i]);
        if (!value)
            return std::nullopt;
        if (name == "--seconds")
            options.seconds = static_cast<int>(*value);
        else if (name == "--disks")
            options.disks = static_cast<int>(*value);
        else if (name == "--seed")
            options.seed = *value;
        else
            return std::nullopt;
    }
    return options;
}

} // namespace
} // namespace soak

int main(int argc, char** argv) {
    std::optional<soak::Options> const options = soak::parse(argc, argv);
    // Every killed writer leaves something to warn of.
    yx::setLogHandler([](yx::LogEntry const&) {});
    if (!options) {
        std::fprintf(stderr, "usage: soak [--seconds <n>] [--disks <n>] [--seed <n>] [--tamper]\n");
        return soak::kUsage;
    }
    try {
        return soak::runSoak(*options);
    } catch (std::exception const& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return soak::kViolated;
    }
}
