// Looking through a store with many disks: what `kelm list` and the verdicts of `kelm prune` ask of
// it, and how long that takes.
//
//   bench_listing [--disks N] [--work FOLDER] [--delays MS,MS,...]
//
// Chains of a full disk and 29 children, as a month of daily backups makes them. The store is a
// folder of the machine, seen as another store than the operating system's, in which each call
// takes the time of --delays.

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <stdlib.h>

#include "bench/arguments.h"
#include "bench/content_files.h"
#include "host/backups/backup_pruning.h"
#include "host/disk/safe_disk.h"
#include "host/store/file_systems.h"
#include "host/store/store_calls.h"
#include "host/store/stores.h"
#include "tests/support/folder_store.h"
#include "yx/native_file_system.h"

namespace {

using namespace kelm;
using Clock = std::chrono::steady_clock;

constexpr int kDisksOfChain = 30;
constexpr __int64 kDiskBytes = __int64{8} << 20;

yx::CURI nameOf(std::filesystem::path const& folder, int disk) {
    std::string const path = folder / ("disk-" + std::to_string(disk) + ".vmdk");
    return {yx::TPathImpl<yx::CUnixPathTraits>(yx::String::fromUTF8(path), true, false), false};
}

void makeDisks(std::filesystem::path const& folder, int disks) {
    auto const native = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem);
    for (int disk = 0; disk < disks; ++disk) {
        host::NewDisk request;
        request.sizeBytes = kDiskBytes;
        request.isToBeFilled = true;
        if (disk % kDisksOfChain != 0)
            request.parent = nameOf(folder, disk - 1);
        auto const guard = yx::makeObject<host::FileGuard>(native.get(), false);
        host::SafeDisk::create(guard.get(), nameOf(folder, disk), request)->markComplete();
        guard->keep();
    }
}

/// Runs some work on the store, and prints what it took.
template <class Work>
void measure(char const* name, int delayMs, int disks, Work const& work) {
    __int64 calls = 0;
    host::StoreCalls::get().setObserver([&] {
        ++calls;
        if (delayMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
    });
    Clock::time_point const start = Clock::now();
    work();
    double const seconds = std::chrono::duration<double>(Clock::now() - start).count();
    host::StoreCalls::get().setObserver(nullptr);
    std::printf("| %s | %d ms | %.2f s | %lld requests | %.1f a disk |\n", name, delayMs, seconds,
                calls, static_cast<double>(calls) / disks);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Lists many disks.");
    std::string work = std::filesystem::temp_directory_path();
    int disks = 10'000;
    std::vector<int> delays = {0};
    bench::addWorkTo(app, work);
    app.add_option("--disks", disks, "How many")->check(CLI::PositiveNumber);
    app.add_option("--delays", delays, "What each request takes, in milliseconds")
        ->delimiter(',')
        ->check(CLI::NonNegativeNumber);
    CLI11_PARSE(app, argc, argv);

    work += "/bench_listing.XXXXXX";
    if (!::mkdtemp(work.data()))
        bench::failWith("cannot make " + work);
    std::string const folder = std::filesystem::canonical(work);
    makeDisks(folder, disks);
    host::AddedStore const added("test", yx::makeObject<test_support::FolderStore>(folder));
    auto const files = yx::makeObject<host::FileSystems>(yx::makeObject<yx::CNativeFileSystem>());
    std::vector<yx::CURI> const folders{yx::CURI("test:/")};
    host::PruneOptions options;
    options.rules.last = kDisksOfChain;
    for (int const delayMs : delays) {
        measure("list", delayMs, disks, [&] {
            if (host::listBackups(files.get(), folders).size() != static_cast<std::size_t>(disks))
                bench::failWith("disks are missing in the list");
        });
        measure("verdicts of prune", delayMs, disks,
                [&] { host::judgeBackups(files.get(), folders, options); });
    }
    std::filesystem::remove_all(work);
    return 0;
}
