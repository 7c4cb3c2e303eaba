#include "host/system/idle_io.h"

#include <sys/syscall.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"

namespace kelm::host {

namespace {

// The system's header for these is none of C++ on every machine.
constexpr int kWhoProcess = 1;
constexpr int kIdleClass = 3;
constexpr int kClassShift = 13;

} // namespace

void useIdleIO() {
    constexpr int kCallingThread = 0;
    if (::syscall(SYS_ioprio_set, kWhoProcess, kCallingThread, kIdleClass << kClassShift) != 0)
        throwSystemError("Cannot use the device only while it is idle", "this process");
}

} // namespace kelm::host
