#include <malloc.h>

#include "bench/report/bench_context.h"
#include "bench/report/work_files.h"

// How much memory disks take, by the allocator's own count of what is in use.

namespace bench {

namespace {

double usedBytes() {
    struct mallinfo2 const info = ::mallinfo2();
    return static_cast<double>(info.uordblks + info.hblkhd);
}

/// A disk as hosts write it, and what it takes once a grain of each of its tables was touched.
std::vector<std::string> measureReached(Context& context, long long sizeBytes, bool compressed) {
    std::string const path = context.folder / "memory.vmdk";
    createDisk(path, sizeBytes, {.compressed = compressed}, false);
    double const before = usedBytes();
    yx::P<yx::CNativeFileSystem> const files = nativeFiles(false);
    kelm::host::SafeDisk disk(files.get(), uriOf(path), yx::IIOStream::ReadWrite, "");
    double const opened = usedBytes() - before;
    std::vector<unsigned char> const bytes(4096, 1);
    disk.write(0, bytes.data(), 4096);
    double const first = usedBytes() - before;
    constexpr long long kTableReachBytes = 32 * kMiB;
    for (long long position = 0; position < sizeBytes; position += kTableReachBytes)
        disk.write(position, bytes.data(), 4096);
    double const reached = usedBytes() - before;
    disk.flush();
    double const gibibytes = static_cast<double>(sizeBytes) / static_cast<double>(kGiB);
    std::filesystem::remove(path);
    return {format("%s, %s", formatBytes(static_cast<double>(sizeBytes)).c_str(),
                   compressed ? "compressed" : "plain"),
            formatBytes(opened), formatBytes(first), formatBytes(reached),
            formatBytes((reached - first) / gibibytes)};
}

} // namespace

void measureMemory(Context& context) {
    std::vector<std::vector<std::string>> rows;
    for (long long const gibibytes : {1, 8, 64}) {
        rows.push_back(measureReached(context, gibibytes * kGiB, false));
        rows.push_back(measureReached(context, gibibytes * kGiB, true));
    }
    settle(context.folder / "memory.vmdk");
    context.report.addTable({"a disk of", "opened for writing", "first grain written",
                             "all of it reached", "by GiB reached"},
                            rows);
}

} // namespace bench
