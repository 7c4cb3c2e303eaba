#include "tests/yx/system_call_faults.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <limits>
#include <vector>

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

namespace system_call_faults {

namespace {

constexpr std::size_t kNoLimit = std::numeric_limits<std::size_t>::max();

struct Rule {
    int errorNumber = 0;
    int failures = 0;
    int passes = 0;
    std::size_t limitBytes = kNoLimit;
    int count = 0;
};

bool isActive = false;
bool pretendsBlockDevices = false;
Rule rules[static_cast<int>(Call::Count_)];

Rule& ruleOf(Call call) {
    return rules[static_cast<int>(call)];
}

/// Counts the call; whether it is not to be made. `result` then has what it returns, and `errno` is
/// set.
bool isToFail(Call call, int& result) {
    if (!isActive)
        return false;
    Rule& rule = ruleOf(call);
    ++rule.count;
    if (rule.passes > 0) {
        --rule.passes;
        return false;
    }
    if (rule.failures == 0)
        return false;
    --rule.failures;
    errno = rule.errorNumber;
    result = rule.errorNumber == 0 ? 0 : -1;
    return true;
}

std::size_t limitOf(Call call) {
    return isActive ? ruleOf(call).limitBytes : kNoLimit;
}

template <class Function>
Function* findNext(char const* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

} // namespace

Scope::Scope() {
    std::fill(std::begin(rules), std::end(rules), Rule());
    isActive = true;
    pretendsBlockDevices = false;
}

Scope::~Scope() {
    isActive = false;
}

void Scope::fail(Call call, int errorNumber, int times, int after) {
    ruleOf(call).errorNumber = errorNumber;
    ruleOf(call).failures = times;
    ruleOf(call).passes = after;
}

void Scope::limit(Call call, std::size_t sizeBytes) {
    ruleOf(call).limitBytes = sizeBytes;
}

void Scope::pretendBlockDevices() {
    pretendsBlockDevices = true;
}

int Scope::count(Call call) const {
    return ruleOf(call).count;
}

} // namespace system_call_faults

namespace faults = system_call_faults;
using faults::Call;

// With 64-bit file offsets the system's headers give these functions the names that end in 64, for
// those who call them and here alike.

#define FAULTS_EXPORT extern "C" __attribute__((visibility("default")))

FAULTS_EXPORT ssize_t pread(int descriptor, void* target, size_t size, off_t position) {
    static auto* const next = faults::findNext<decltype(pread)>("pread64");
    int result = 0;
    if (faults::isToFail(Call::Pread, result))
        return result;
    return next(descriptor, target, std::min(size, faults::limitOf(Call::Pread)), position);
}

FAULTS_EXPORT ssize_t pwritev(int descriptor, iovec const* pieces, int count, off_t position) {
    static auto* const next = faults::findNext<decltype(pwritev)>("pwritev64");
    int result = 0;
    if (faults::isToFail(Call::Pwritev, result))
        return result;
    std::size_t left = faults::limitOf(Call::Pwritev);
    if (left == 0)
        return 0;
    std::vector<iovec> cut;
    for (int i = 0; i < count && left > 0; ++i) {
        cut.push_back({pieces[i].iov_base, std::min(left, pieces[i].iov_len)});
        left -= cut.back().iov_len;
    }
    return next(descriptor, cut.data(), static_cast<int>(cut.size()), position);
}

FAULTS_EXPORT int ftruncate(int descriptor, off_t length) noexcept {
    static auto* const next = faults::findNext<decltype(ftruncate)>("ftruncate64");
    int result = 0;
    return faults::isToFail(Call::Ftruncate, result) ? result : next(descriptor, length);
}

FAULTS_EXPORT int fstat(int descriptor, struct stat* status) noexcept {
    static auto* const next = faults::findNext<int(int, struct stat*)>("fstat64");
    int const result = next(descriptor, status);
    if (result == 0 && faults::isActive && faults::pretendsBlockDevices) {
        status->st_mode = (status->st_mode & ~static_cast<mode_t>(S_IFMT)) | S_IFBLK;
        status->st_size = 0;
    }
    return result;
}

FAULTS_EXPORT int fdatasync(int descriptor) {
    static auto* const next = faults::findNext<decltype(fdatasync)>("fdatasync");
    int result = 0;
    return faults::isToFail(Call::Fdatasync, result) ? result : next(descriptor);
}

FAULTS_EXPORT int fsync(int descriptor) {
    static auto* const next = faults::findNext<decltype(fsync)>("fsync");
    int result = 0;
    return faults::isToFail(Call::Fsync, result) ? result : next(descriptor);
}

FAULTS_EXPORT int syncfs(int descriptor) noexcept {
    static auto* const next = faults::findNext<decltype(syncfs)>("syncfs");
    int result = 0;
    return faults::isToFail(Call::Syncfs, result) ? result : next(descriptor);
}

FAULTS_EXPORT int close(int descriptor) {
    static auto* const next = faults::findNext<decltype(close)>("close");
    int result = 0;
    if (!faults::isToFail(Call::Close, result))
        return next(descriptor);
    int const errorNumber = errno;
    next(descriptor);
    errno = errorNumber;
    return result;
}

FAULTS_EXPORT int fcntl(int descriptor, int command, ...) {
    static auto* const next = faults::findNext<decltype(fcntl)>("fcntl64");
    int result = 0;
    if (command == F_OFD_SETLK && faults::isToFail(Call::Fcntl, result))
        return result;
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    return next(descriptor, command, argument);
}
