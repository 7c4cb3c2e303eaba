// What work on a disk asks of its file system, and how long it takes where each request has a way
// to go: on a file server, a cluster, or a store of objects.
//
//   bench_requests [--content FOLDER] [--work FOLDER] [--delays MS,MS,...]
//   bench_requests --open DISK [--times N]
//
// A file system over that of the system counts requests and delays each. The image is the first 32
// MiB of the programs below --content. With --open, a disk is opened for reading and closed again so
// many times, and the median of the time in microseconds is told: for `strace`, `callgrind`, and a
// comparison of two builds.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <stdlib.h>

#include "bench/arguments.h"
#include "bench/content_files.h"
#include "bench/delayed_files.h"
#include "host/check/disk_check.h"
#include "host/transfer/disk_space.h"
#include "host/transfer/transfer.h"
#include "yx/native_file_system.h"

namespace {

using namespace kelm;
using Clock = std::chrono::steady_clock;

constexpr std::size_t kImageBytes = std::size_t{32} << 20;
constexpr int kRandomReads = 100;
constexpr int kRandomReadBytes = 4096;
constexpr __int64 kPositionStepBytes = 4096;

struct Kind {
    char const* name;
    bool isCompressed;
    char const* password;
    __int64 fileSizeLimitBytes;
    bool onDemand;
};

constexpr Kind kKinds[] = {
    {"plain", false, "", -1, false},
    {"compressed", true, "", -1, false},
    {"compressed, encrypted", true, "password", -1, false},
    {"on demand, files of 4 MiB", false, "", 4 << 20, true},
};

yx::CURI toURI(std::filesystem::path const& path) {
    return {yx::TPathImpl<yx::CUnixPathTraits>(path.c_str(), true, false), false};
}

std::unique_ptr<host::SafeDisk> openDisk(yx::IFileSystem* files, std::filesystem::path const& path,
                                         Kind const& kind) {
    return std::make_unique<host::SafeDisk>(files, toURI(path), yx::IIOStream::ReadOnly,
                                            kind.password);
}

void import(yx::IFileSystem* files, std::filesystem::path const& path, std::string const& image,
            Kind const& kind) {
    yx::P<host::FileGuard> const guard = yx::makeObject<host::FileGuard>(files, true);
    guard->keep();
    host::NewDisk request;
    request.sizeBytes = static_cast<__int64>(std::filesystem::file_size(image));
    request.password = kind.password;
    request.compressed = kind.isCompressed;
    request.compressionLevel = 1;
    request.fileSizeLimitBytes = kind.fileSizeLimitBytes;
    request.createExtentFilesOnDemand = kind.onDemand;
    request.isToBeFilled = true;
    std::unique_ptr<host::SafeDisk> const disk =
        host::SafeDisk::create(guard.get(), toURI(path), request);
    host::RawSource source(image);
    host::importRaw(source, *disk, {});
    disk->markComplete();
}

void readAtRandom(host::SafeDisk& disk) {
    std::mt19937_64 random(7);
    std::vector<unsigned char> buffer(kRandomReadBytes);
    auto const places = static_cast<unsigned long long>(disk.getSizeBytes() / kPositionStepBytes);
    for (int i = 0; i < kRandomReads; ++i) {
        disk.read(static_cast<__int64>(random() % places) * kPositionStepBytes, buffer.data(),
                  kRandomReadBytes);
    }
}

struct Work {
    char const* name;
    std::function<void(yx::IFileSystem*)> run;
};

/// A line of the table: the time and the requests of some work, which are forgotten.
double measure(bench::DelayedFiles& files, Work const& work, Kind const& kind, int delayMs) {
    Clock::time_point const start = Clock::now();
    work.run(&files);
    double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("| %s | %s | %d ms | %.4f s | %s |\n", work.name, kind.name, delayMs, seconds,
                files.getMeter().describe().c_str());
    std::fflush(stdout);
    files.getMeter().forget();
    return seconds;
}

void measureKind(std::filesystem::path const& folder, std::string const& image, Kind const& kind,
                 int delayMs) {
    yx::P<yx::CNativeFileSystem> const native =
        yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
    std::filesystem::path const disk = folder / "disk.vmdk";
    auto const with = [&](std::function<void(host::SafeDisk&)> const& use) {
        return [&kind, disk, use](yx::IFileSystem* files) { use(*openDisk(files, disk, kind)); };
    };
    std::unique_ptr<host::SafeDisk> kept;
    Work const works[] = {
        {"import", [&](yx::IFileSystem* files) { import(files, disk, image, kind); }},
        {"open", [&](yx::IFileSystem* files) { kept = openDisk(files, disk, kind); }},
        {"close", [&](yx::IFileSystem*) { kept.reset(); }},
        {"info with space", with([](host::SafeDisk& opened) { host::gatherSpace(opened, {}); })},
        {"random reads", with(readAtRandom)},
        {"export", with([&](host::SafeDisk& opened) {
             host::RawTarget target(folder / "copy.raw", true);
             host::exportRaw(opened, target, {});
             target.finish();
         })},
        {"check", [&](yx::IFileSystem* files) {
             __int64 const findings = host::checkDisk(files, toURI(disk), kind.password, {},
                                                      [](yx::CURI const&, std::string const&) {});
             if (findings != 0)
                 bench::failWith("the disk is not sound");
         }}};
    double exportSeconds = 0;
    yx::P<bench::DelayedFiles> const files =
        yx::makeObject<bench::DelayedFiles>(native.get(), std::chrono::milliseconds(delayMs));
    for (Work const& work : works) {
        double const seconds = measure(*files, work, kind, delayMs);
        if (std::string(work.name) == "export")
            exportSeconds = seconds;
        if (std::string(work.name) == "check")
            std::printf("| check against export | %s | %d ms | %.2f | |\n", kind.name, delayMs,
                        seconds / exportSeconds);
    }
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
}

void openOften(std::string const& path, int times) {
    yx::P<yx::CNativeFileSystem> const files = yx::makeObject<yx::CNativeFileSystem>();
    std::filesystem::path const disk = std::filesystem::absolute(path);
    std::vector<double> microseconds;
    for (int i = 0; i < times; ++i) {
        Clock::time_point const start = Clock::now();
        openDisk(files.get(), disk, kKinds[0]);
        microseconds.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    std::nth_element(microseconds.begin(), microseconds.begin() + times / 2, microseconds.end());
    std::printf("%.1f\n", microseconds[static_cast<std::size_t>(times / 2)]);
}

std::vector<unsigned char> readPrograms(std::string const& content) {
    return bench::readFiles(content, kImageBytes, bench::isElf);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Counts the requests that work on a disk makes.");
    std::string content = "/usr/bin";
    std::string work = std::filesystem::temp_directory_path();
    std::vector<int> delays = {0, 1, 10};
    std::string disk;
    int times = 1;
    bench::addContentTo(app, content);
    bench::addWorkTo(app, work);
    app.add_option("--delays", delays, "What each request takes, in milliseconds")
        ->delimiter(',')
        ->check(CLI::NonNegativeNumber);
    app.add_option("--open", disk, "Only open this disk")->check(CLI::ExistingFile);
    app.add_option("--times", times, "So many times")->check(CLI::PositiveNumber);
    CLI11_PARSE(app, argc, argv);
    if (!disk.empty()) {
        openOften(disk, times);
        return 0;
    }

    work += "/bench_requests.XXXXXX";
    if (!::mkdtemp(work.data()))
        bench::failWith("cannot make " + work);
    std::filesystem::path const folder = std::filesystem::path(work) / "disk";
    std::filesystem::create_directory(folder);
    std::string const image = work + "/image.raw";
    std::vector<unsigned char> const bytes = readPrograms(content);
    std::ofstream(image, std::ios::binary)
        .write(reinterpret_cast<char const*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    std::printf("| work | disk | delay | time | requests |\n|---|---|---|---|---|\n");
    for (int const delay : delays) {
        for (Kind const& kind : kKinds)
            measureKind(folder, image, kind, delay);
    }
    std::filesystem::remove_all(work);
    return 0;
}
