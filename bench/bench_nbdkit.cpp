// What a copy of a disk costs when it goes through nbdkit: `nbdcopy` from the plugin against
// `nbdcopy` from nbdkit's own file plugin on the raw image of the same content. And how many requests
// of 4 KiB, 16 of them under way at any time, either answers in a second: reads at random places and
// in order, and writes at random places; `fio` asks.
//
//   bench_nbdkit [--content FOLDER] [--work FOLDER] [--rounds N]
//
// The image is made by `mke2fs -d`, is larger than its content, and holds at least 100 MB. The
// copies are thrown away, so that only the server counts. A round takes the copies in turn, so that
// what else the machine does hits them alike; each figure is the median of the rounds.

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include "bench/arguments.h"
#include "bench/content_files.h"
#include "bench/interleaved.h"
#include "bench/served_requests.h"
#include "host/transfer/transfer.h"
#include "yx/native_file_system.h"

namespace {

using namespace kelm;

constexpr long long kMinImageBytes = 100'000'000;
const bench::AskedRequests kRandomReads = {"--rw=randread --iodepth=16 --io_size=200m --size=100m",
                                           bench::kReadsField, "nbdkit -r"};
const bench::AskedRequests kReadsInOrder = {"--rw=read --iodepth=16 --io_size=100m --size=100m",
                                            bench::kReadsField, "nbdkit -r"};
const bench::AskedRequests kRandomWrites = {"--rw=randwrite --iodepth=16 --io_size=50m --size=100m",
                                            bench::kWritesField, "nbdkit"};
constexpr char kRawImage[] = "raw image, file plugin";

struct Kind {
    char const* name;
    bool isCompressed;
    char const* password;

    /// The most times as long as from the file plugin that a copy should take. Compressed and
    /// encrypted disks pay for one thread that decompresses and deciphers.
    double maxRatio;
};

constexpr Kind kKinds[] = {
    {"plain", false, "", 1.1},
    {"encrypted", false, "password", 1.5},
    {"compressed", true, "", 3.5},
    {"compressed-encrypted", true, "password", 4.0},
};

yx::CURI toURI(std::string const& path) {
    return {yx::TPathImpl<yx::CUnixPathTraits>(path.c_str(), true, false), false};
}

/// Makes the image and returns its path.
std::string makeImage(std::string const& content, std::filesystem::path const& folder) {
    std::string const image = bench::makeFileSystemImage(content, folder);
    struct stat status = {};
    if (::stat(image.c_str(), &status) != 0 || status.st_blocks * 512LL < kMinImageBytes)
        bench::failWith(content + " holds less than 100 MB");
    return image;
}

void makeDisk(std::string const& path, std::string const& image, Kind const& kind) {
    yx::P<yx::CNativeFileSystem> const files = yx::makeObject<yx::CNativeFileSystem>();
    yx::P<host::FileGuard> const guard = yx::makeObject<host::FileGuard>(files.get(), false);
    guard->keep();
    host::NewDisk request;
    request.sizeBytes = static_cast<__int64>(std::filesystem::file_size(image));
    request.password = kind.password;
    request.compressed = kind.isCompressed;
    std::unique_ptr<host::SafeDisk> const disk =
        host::SafeDisk::create(guard.get(), toURI(path), request);
    host::RawSource source(image);
    host::importRaw(source, *disk, {});
}

/// Seconds by the clock of a copy from a server that is started for it.
double copySeconds(std::string const& server) {
    auto const start = std::chrono::steady_clock::now();
    bench::runCommand("nbdcopy -- [ nbdkit -r " + server + " ] null:");
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string pluginOn(std::string const& disk, Kind const& kind) {
    std::string const command = bench::quoted(KELM_NBDKIT_PLUGIN) + " " + bench::quoted(disk);
    return *kind.password == '\0' ? command : command + " password=" + kind.password;
}

void measureRequests(std::string const& what, bench::AskedRequests const& asked,
                     std::filesystem::path const& folder, std::string const& image, int rounds) {
    std::map<std::string, std::vector<double>> counts;
    for (int i = 0; i < rounds; ++i) {
        counts[kRawImage].push_back(
            bench::requestsPerSecond(asked, "file " + bench::quoted(image)));
        for (Kind const& kind : kKinds) {
            counts[kind.name].push_back(
                bench::requestsPerSecond(asked, pluginOn(folder / kind.name, kind)));
        }
    }
    double const countOfFile = bench::median(counts.at(kRawImage));
    bench::note((std::string(kRawImage) + ", " + what).c_str(), countOfFile, "/s");
    for (Kind const& kind : kKinds) {
        double const own = bench::median(counts.at(kind.name));
        bench::note((std::string(kind.name) + ", " + what).c_str(), own, "/s");
        bench::note((std::string(kind.name) + ", beside the file plugin").c_str(),
                    own / countOfFile, "x");
    }
}

void measure(std::filesystem::path const& folder, std::string const& image, int rounds) {
    std::map<std::string, std::vector<double>> seconds;
    for (Kind const& kind : kKinds)
        makeDisk(folder / kind.name, image, kind);
    for (int i = 0; i <= rounds; ++i) {
        std::map<std::string, double> round;
        round[kRawImage] = copySeconds("file " + bench::quoted(image));
        for (Kind const& kind : kKinds)
            round[kind.name] = copySeconds(pluginOn(folder / kind.name, kind));
        // The first round only warms up.
        for (auto const& [name, value] : round) {
            if (i > 0)
                seconds[name].push_back(value);
        }
    }
    double const reference = bench::median(seconds[kRawImage]);
    bench::note(kRawImage, reference, "s");
    for (Kind const& kind : kKinds) {
        double const own = bench::median(seconds[kind.name]);
        bench::note(kind.name, own, "s");
        bench::reportAtMost((std::string(kind.name) + " disk, time of the file plugin").c_str(),
                            own / reference, kind.maxRatio);
    }
    measureRequests("random reads", kRandomReads, folder, image, rounds);
    measureRequests("reads in order", kReadsInOrder, folder, image, rounds);
    // Last, since they change what the disks hold.
    measureRequests("random writes", kRandomWrites, folder, image, rounds);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures copies through nbdkit.");
    std::string content = "/usr/share";
    std::string folder = std::filesystem::temp_directory_path();
    int rounds = 5;
    bench::addContentTo(app, content);
    bench::addWorkTo(app, folder);
    bench::addRoundsTo(app, rounds);
    CLI11_PARSE(app, argc, argv);

    folder += "/bench_nbdkit.XXXXXX";
    if (!::mkdtemp(folder.data()))
        bench::failWith("cannot make " + folder);
    measure(folder, makeImage(content, folder), rounds);
    std::filesystem::remove_all(folder);
    return 0;
}
