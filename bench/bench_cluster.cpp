// What disks on a cluster cost beside the bare calls of the cluster's client.
//
//   tests/cluster/cluster run build/bench/bin/bench/bench_cluster [--size MIB] [--rounds N]
//       [--content FOLDER] [--work FOLDER] [--folder URI]
//
// Both sides of each pair do the same to the same bytes and take turns: a loop over the client's own
// calls with pieces of 4 MiB, and the work on a disk. The image is of programs below --content; it and
// what is exported lie in --work, which should be in memory. A figure is the median of the ratios of
// neighbours.

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <cephfs/libcephfs.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "bench/arguments.h"
#include "bench/content_files.h"
#include "bench/interleaved.h"
#include "bench/served_requests.h"
#include "host/check/disk_check.h"
#include "host/store/file_systems.h"
#include "host/transfer/transfer.h"
#include "integrations/cephfs/ceph_location.h"
#include "yx/native_file_system.h"

namespace {

using namespace kelm;

constexpr std::size_t kPieceBytes = std::size_t{4} << 20;
constexpr std::size_t kRequestBytes = 4096;
constexpr int kRequestsUnderWay = 16;
constexpr int kRequests = 4000;
constexpr double kTransferAim = 0.9;
constexpr double kRandomAim = 0.8;
constexpr double kCheckAim = 1.3;
constexpr double kBytesOfMegabyte = 1e6;

/// Seconds by the clock: most of the time is spent in the servers.
double timeOf(std::function<void()> const& run) {
    auto const begin = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// The processor time that a process has used, in user and in system code.
double processorSecondsOf(std::string const& process) {
    std::ifstream file("/proc/" + process + "/stat");
    std::string line;
    std::getline(file, line);
    // Behind the name of the program, which may have blanks in it: two times, the 14th and the 15th
    // field of the line.
    constexpr int kFieldsBetween = 11;
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < kFieldsBetween; ++i)
        fields >> skipped;
    double user = 0;
    double system = 0;
    fields >> user >> system;
    return (user + system) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

/// That of this process and of the servers, if the cluster is one of tests/cluster/cluster.
double processorSecondsOfAll() {
    double seconds = processorSecondsOf("self");
    char const* const folder = std::getenv("KELM_TEST_CLUSTER");
    if (!folder)
        return seconds;
    for (auto const& entry : std::filesystem::directory_iterator(folder)) {
        std::string process;
        if (entry.path().extension() == ".pid" && std::ifstream(entry.path()) >> process)
            seconds += processorSecondsOf(process);
    }
    return seconds;
}

/// The seconds of some work, and how many it would take at least with all cores at work.
struct Spent {
    double seconds;
    double busySeconds;
};

Spent spentOn(std::function<void()> const& run) {
    double const before = processorSecondsOfAll();
    double const seconds = timeOf(run);
    return {seconds,
            (processorSecondsOfAll() - before) / std::max(1U, std::thread::hardware_concurrency())};
}

int require(int result, char const* what) {
    if (result < 0)
        bench::failWith(std::string(what) + " fails: " + std::to_string(result));
    return result;
}

/// A client that does no more than it is called for.
class BareClient {
public:
    explicit BareClient(std::string const& user) {
        require(ceph_create(&m_client, user.empty() ? nullptr : user.c_str()), "ceph_create");
        ceph_conf_read_file(m_client, nullptr);
        ceph_conf_parse_env(m_client, nullptr);
        // As the store has it, so that both sides cache alike.
        ceph_conf_set(m_client, "client_oc_size", "33554432");
        ceph_conf_set(m_client, "client_oc_max_dirty", "16777216");
        require(ceph_mount(m_client, "/"), "ceph_mount");
    }
    BareClient(BareClient const&) = delete;
    BareClient& operator=(BareClient const&) = delete;
    ~BareClient() { ceph_shutdown(m_client); }

    /// Copies the first bytes of a local file to one of the cluster.
    void put(std::string const& local, std::string const& path, std::size_t sizeBytes) {
        std::ifstream source(local, std::ios::binary);
        int const file = require(
            ceph_open(m_client, path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0666), "ceph_open");
        std::vector<char> piece(kPieceBytes);
        for (std::size_t done = 0; done < sizeBytes;) {
            std::size_t const part = std::min(kPieceBytes, sizeBytes - done);
            source.read(piece.data(), static_cast<std::streamsize>(part));
            require(ceph_write(m_client, file, piece.data(), static_cast<std::int64_t>(part),
                               static_cast<std::int64_t>(done)),
                    "ceph_write");
            done += part;
        }
        require(ceph_fsync(m_client, file, 0), "ceph_fsync");
        ceph_close(m_client, file);
    }

    /// Copies a file of the cluster to a local one.
    void get(std::string const& path, std::string const& local) {
        std::ofstream target(local, std::ios::binary);
        int const file = require(ceph_open(m_client, path.c_str(), O_RDONLY, 0), "ceph_open");
        std::vector<char> piece(kPieceBytes);
        std::int64_t position = 0;
        while (int const count = require(
                   ceph_read(m_client, file, piece.data(), kPieceBytes, position), "ceph_read")) {
            target.write(piece.data(), count);
            position += count;
        }
        ceph_close(m_client, file);
    }

    /// How many requests of 4 KiB at random places of a file are answered in a second, where so
    /// many threads each have one under way.
    double readAtRandom(std::string const& path, std::size_t sizeBytes, int threads, int requests) {
        int const file = require(ceph_open(m_client, path.c_str(), O_RDONLY, 0), "ceph_open");
        double const seconds = timeOf([&] {
            std::vector<std::jthread> readers;
            for (int i = 0; i < threads; ++i) {
                readers.emplace_back([=, this] {
                    std::mt19937_64 random(static_cast<unsigned>(i));
                    std::vector<char> block(kRequestBytes);
                    for (int done = 0; done < requests / threads; ++done) {
                        auto const index = random() % (sizeBytes / kRequestBytes);
                        require(ceph_read(m_client, file, block.data(), kRequestBytes,
                                          static_cast<std::int64_t>(index * kRequestBytes)),
                                "ceph_read");
                    }
                });
            }
        });
        ceph_close(m_client, file);
        return requests / seconds;
    }

private:
    ceph_mount_info* m_client = nullptr;
};

void importTo(yx::IFileSystem* files, yx::CURI const& uri, std::string const& image,
              bool isCompressed) {
    yx::P<host::FileGuard> const guard = yx::makeObject<host::FileGuard>(files, true);
    guard->keep();
    host::NewDisk request;
    request.sizeBytes = static_cast<__int64>(std::filesystem::file_size(image));
    request.compressed = isCompressed;
    request.compressionLevel = 1;
    request.isToBeFilled = true;
    std::unique_ptr<host::SafeDisk> const disk = host::SafeDisk::create(guard.get(), uri, request);
    host::RawSource source(image);
    host::importRaw(source, *disk, {});
    disk->markComplete();
}

void exportTo(yx::IFileSystem* files, yx::CURI const& uri, std::string const& local) {
    host::SafeDisk disk(files, uri, yx::IIOStream::ReadOnly, "");
    host::RawTarget target(local, true);
    host::exportRaw(disk, target, {});
    target.finish();
}

void check(yx::IFileSystem* files, yx::CURI const& uri) {
    if (host::checkDisk(files, uri, "", {}, [](yx::CURI const&, std::string const&) {}) != 0)
        bench::failWith("the disk is not sound");
}

/// The figures of all rounds.
struct Figures {
    std::vector<double> imports, exports, compressedImports, compressedExports, checks,
        compressedChecks;
    std::vector<double> sharedImports;
    std::vector<double> randomReads, requests, loopRequests;
    std::vector<double> loopWriteSeconds, loopReadSeconds, importSeconds, exportSeconds;
};

/// The places of a run.
struct Setting {
    yx::CURI folder;
    std::string user;
    std::string folderPath;
    std::string image;
    std::string work;

    /// The plugin for nbdkit; empty where it was not built.
    std::string plugin;
};

/// Of a whole disk, many times the cache of the client.
void readAtRandom(Setting const& setting, BareClient& bare, std::string const& path,
                  yx::CURI const& disk, Figures& figures) {
    auto const sizeBytes = static_cast<std::size_t>(std::filesystem::file_size(setting.image));
    bench::AskedRequests const asked = {
        "--rw=randread --iodepth=" + std::to_string(kRequestsUnderWay) + " --io_size=" +
            std::to_string(kRequests * kRequestBytes) + " --size=" + std::to_string(sizeBytes),
        bench::kReadsField, "nbdkit -r"};
    double const own =
        bench::requestsPerSecond(asked, bench::quoted(setting.plugin) + " " +
                                            bench::quoted(disk.toString(true).toStdString()));
    double const loop = bare.readAtRandom(path, sizeBytes, kRequestsUnderWay, kRequests);
    figures.loopRequests.push_back(loop);
    figures.requests.push_back(own);
    figures.randomReads.push_back(own / loop);
}

void runRound(Setting const& setting, Figures& figures) {
    // The store that host code asks about names too: a client of its own would share the files with
    // that one, and the cluster would let neither cache what it writes.
    auto const files = yx::makeObject<host::FileSystems>();
    auto const native = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
    BareClient bare(setting.user);
    std::string const loopPath = setting.folderPath + "/bench_cluster.raw";
    std::string const copy = setting.work + "/copy.raw";
    auto const sizeBytes = static_cast<std::size_t>(std::filesystem::file_size(setting.image));
    yx::CURI const plain = setting.folder << "bench_cluster.vmdk";
    yx::CURI const compressed = setting.folder << "bench_cluster_compressed.vmdk";
    yx::CURI const local(yx::TPathImpl<yx::CUnixPathTraits>(
                             yx::String::fromUTF8(setting.work + "/compressed.vmdk"), true, false),
                         false);

    double const put = timeOf([&] { bare.put(setting.image, loopPath, sizeBytes); });
    double const imported = timeOf([&] { importTo(files.get(), plain, setting.image, false); });
    double const got = timeOf([&] { bare.get(loopPath, copy); });
    double const exported = timeOf([&] { exportTo(files.get(), plain, copy); });
    double const checked = timeOf([&] { check(files.get(), plain); });

    if (!setting.plugin.empty())
        readAtRandom(setting, bare, loopPath, plain, figures);

    Spent const coded = spentOn([&] { importTo(native.get(), local, setting.image, true); });
    std::size_t const codedBytes =
        static_cast<std::size_t>(std::filesystem::file_size(setting.work + "/compressed.vmdk"));
    Spent const codedPut = spentOn([&] { bare.put(setting.image, loopPath, codedBytes); });
    double const codedImport =
        timeOf([&] { importTo(files.get(), compressed, setting.image, true); });
    double const codedGot = timeOf([&] { bare.get(loopPath, copy); });
    double const codedExport = timeOf([&] { exportTo(files.get(), compressed, copy); });
    double const codedCheck = timeOf([&] { check(files.get(), compressed); });

    figures.loopWriteSeconds.push_back(put);
    figures.importSeconds.push_back(imported);
    figures.loopReadSeconds.push_back(got);
    figures.exportSeconds.push_back(exported);
    figures.imports.push_back(put / imported);
    figures.exports.push_back(got / exported);
    figures.checks.push_back(checked / exported);
    figures.compressedImports.push_back(std::max(coded.seconds, codedPut.seconds) / codedImport);
    figures.sharedImports.push_back(
        std::max({coded.seconds, codedPut.seconds, coded.busySeconds + codedPut.busySeconds}) /
        codedImport);
    figures.compressedExports.push_back(codedGot / codedExport);
    figures.compressedChecks.push_back(codedCheck / codedExport);
    for (yx::CURI const& uri : {plain, compressed})
        files->deleteFile(uri, true);
    files->deleteFile(setting.folder << "bench_cluster.raw", true);
}

void reportAll(Figures const& figures, std::size_t sizeBytes) {
    double const megabytes = static_cast<double>(sizeBytes) / kBytesOfMegabyte;
    auto const noteSpeed = [&](char const* name, std::vector<double> const& seconds) {
        bench::note(name, megabytes / bench::median(seconds), "MB/s");
    };
    noteSpeed("loop over the client's calls, writing", figures.loopWriteSeconds);
    noteSpeed("import", figures.importSeconds);
    noteSpeed("loop over the client's calls, reading", figures.loopReadSeconds);
    noteSpeed("export", figures.exportSeconds);
    bench::report("import beside the loop", bench::median(figures.imports), kTransferAim, "x");
    bench::report("export beside the loop", bench::median(figures.exports), kTransferAim, "x");
    bench::report("compressed import beside the slower of coder and loop",
                  bench::median(figures.compressedImports), kTransferAim, "x");
    bench::report("the same, where both share these cores with the servers",
                  bench::median(figures.sharedImports), kTransferAim, "x");
    bench::note("compressed export beside the loop", bench::median(figures.compressedExports), "x");
    bench::reportAtMost("check beside the export", bench::median(figures.checks), kCheckAim);
    bench::reportAtMost("check beside the export, compressed",
                        bench::median(figures.compressedChecks), kCheckAim);
    if (figures.randomReads.empty())
        return;
    bench::note("random reads of 4 KiB, 16 threads of a loop", bench::median(figures.loopRequests),
                "/s");
    bench::note("the same through nbdkit", bench::median(figures.requests), "/s");
    bench::report("random reads beside the loop", bench::median(figures.randomReads), kRandomAim,
                  "x");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures disks on a cluster beside its client's own calls.");
    std::string content = "/usr";
    std::string work = "/dev/shm";
    std::string folder = "ceph://writer@disks/";
    std::size_t sizeMiB = 128;
    int rounds = 3;
    bench::addContentTo(app, content);
    bench::addWorkTo(app, work);
    bench::addRoundsTo(app, rounds);
    app.add_option("--size", sizeMiB, "The size of the image in MiB")->capture_default_str();
    app.add_option("--folder", folder, "A folder of the cluster")->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    work += "/bench_cluster.XXXXXX";
    if (!::mkdtemp(work.data()))
        bench::failWith("cannot make " + work);
    Setting setting;
    setting.folder = yx::CURI(yx::String::fromUTF8(folder));
    kelm::ceph::CephLocation const location = kelm::ceph::locate(setting.folder);
    setting.user = location.user;
    setting.folderPath = location.path;
    setting.work = work;
#ifdef KELM_NBDKIT_PLUGIN
    setting.plugin = KELM_NBDKIT_PLUGIN;
#endif
    setting.image = work + "/image.raw";
    std::size_t const sizeBytes = sizeMiB << 20;
    std::vector<unsigned char> const bytes = bench::readFiles(content, sizeBytes, bench::isElf);
    std::ofstream(setting.image, std::ios::binary)
        .write(reinterpret_cast<char const*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    Figures figures;
    for (int round = 0; round < rounds; ++round)
        runRound(setting, figures);
    reportAll(figures, sizeBytes);
    std::filesystem::remove_all(work);
    return 0;
}
