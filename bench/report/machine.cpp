#include "bench/report/machine.h"

#include <algorithm>
#include <fstream>
#include <thread>

#include <linux/magic.h>
#include <openssl/crypto.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <sys/vfs.h>
#include <zlib.h>
#if __has_include(<libdeflate.h>)
#include <libdeflate.h>
#endif
#if __has_include(<isa-l.h>)
#include <isa-l.h>
#endif

#include "bench/report/report.h"

namespace bench {

namespace {

std::string processorModel() {
    std::ifstream file("/proc/cpuinfo");
    for (std::string line; std::getline(file, line);) {
        if (line.rfind("model name", 0) == 0)
            return line.substr(line.find(':') + 2);
    }
    return "not known";
}

/// The kind of the file system that the folder lies on, by the longest mount point above it.
std::string fileSystemOf(std::string const& folder) {
    std::ifstream file("/proc/mounts");
    std::string best;
    std::string kind = "not known";
    std::string device;
    std::string point;
    std::string type;
    for (std::string rest; file >> device >> point >> type && std::getline(file, rest);) {
        bool const above = point == "/" || folder == point || folder.rfind(point + "/", 0) == 0;
        if (above && point.size() >= best.size()) {
            best = point;
            kind = type + " on " + device;
        }
    }
    return kind;
}

std::string libdeflateVersion() {
#ifdef LIBDEFLATE_VERSION_STRING
    return LIBDEFLATE_VERSION_STRING;
#else
    return "none";
#endif
}

std::string isalVersion() {
#ifdef ISAL_MAJOR_VERSION
    return format("%d.%d.%d", ISAL_MAJOR_VERSION, ISAL_MINOR_VERSION, ISAL_PATCH_VERSION);
#else
    return "none";
#endif
}

} // namespace

int coreCount() {
    return static_cast<int>(std::max(1U, std::thread::hardware_concurrency()));
}

bool isInMemory(std::string const& folder) {
    struct statfs status = {};
    return ::statfs(folder.c_str(), &status) == 0 && status.f_type == TMPFS_MAGIC;
}

void addMachine(Report& report, std::string const& folder) {
    struct sysinfo memory = {};
    ::sysinfo(&memory);
    utsname system = {};
    ::uname(&system);
    report.addTable(
        {"", ""},
        {{"processor", processorModel() + format(", %d cores", coreCount())},
         {"memory", formatBytes(static_cast<double>(memory.totalram) * memory.mem_unit)},
         {"work files on", fileSystemOf(folder)},
         {"system", std::string(system.sysname) + " " + system.release + ", " + system.machine},
         {"compiler", std::string(
#ifdef __clang__
                          "clang "
#else
                          "GCC "
#endif
                          ) +
                          __VERSION__},
         {"OpenSSL", OpenSSL_version(OPENSSL_VERSION_STRING)},
         {"zlib", ::zlibVersion()},
         {"libdeflate", libdeflateVersion()},
         {"ISA-L", isalVersion()}});
}

} // namespace bench
