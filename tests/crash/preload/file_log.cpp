// A library to be loaded before all others: writes down, in the file that KELM_FILE_LOG names, each
// operation of a program that changes files or folders or brings them to the device. file_log.h in
// tests/support says in what form.
//
// With KELM_FILE_LOG_KILL_AFTER, the program is killed right behind so many of these operations, or
// gets the signal whose number is in KELM_FILE_LOG_SIGNAL.
// With KELM_FILE_LOG_NO_SYNC, what it brings to the device is written down and nothing else, which
// takes no time and no power cut of the machine's own can tell.

#include "tests/support/file_log.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#define KELM_REPLACED extern "C" __attribute__((visibility("default")))

namespace {

using test_support::FileLogRecord;

std::mutex mutex;

template <class Function>
Function* systemFunction(char const* name) {
    return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

/// Not by functions that are replaced here.
int openLog() {
    char const* const name = std::getenv("KELM_FILE_LOG");
    if (!name)
        return -1;
    return static_cast<int>(
        ::syscall(SYS_openat, AT_FDCWD, name, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
}

long numberInEnvironment(char const* name, long otherwise) {
    char const* const text = std::getenv(name);
    return text ? std::atol(text) : otherwise;
}

/// Counts an operation, and sends the signal behind the one that it is to come behind.
void passOperation() {
    static long left = numberInEnvironment("KELM_FILE_LOG_KILL_AFTER", -1);
    static int const signal =
        static_cast<int>(numberInEnvironment("KELM_FILE_LOG_SIGNAL", SIGKILL));
    if (left > 0 && --left == 0)
        ::kill(::getpid(), signal);
}

void write(FileLogRecord::Kind kind, unsigned long long file, long long position, char const* path,
           iovec const* vectors, int vectorCount, std::size_t bytes) {
    int const log = openLog();
    if (log < 0)
        return;
    FileLogRecord record = {};
    record.kind = kind;
    record.file = file;
    record.position = position;
    record.pathBytes = path ? std::strlen(path) : 0;
    record.contentBytes = bytes;
    (void)!::syscall(SYS_write, log, &record, sizeof record);
    if (path)
        (void)!::syscall(SYS_write, log, path, record.pathBytes);
    for (int i = 0; i < vectorCount && bytes > 0; ++i) {
        std::size_t const part = bytes < vectors[i].iov_len ? bytes : vectors[i].iov_len;
        (void)!::syscall(SYS_write, log, vectors[i].iov_base, part);
        bytes -= part;
    }
    ::syscall(SYS_close, log);
}

void append(FileLogRecord::Kind kind, unsigned long long file, long long position, char const* path,
            iovec const* vectors, int vectorCount, std::size_t bytes) {
    write(kind, file, position, path, vectors, vectorCount, bytes);
    passOperation();
}

void append(FileLogRecord::Kind kind, unsigned long long file, char const* path = nullptr,
            long long position = 0) {
    append(kind, file, position, path, nullptr, 0, 0);
}

struct stat statusOf(int descriptor) {
    struct stat status = {};
    ::fstat(descriptor, &status);
    return status;
}

unsigned long long fileAt(char const* path) {
    struct stat status = {};
    return ::lstat(path, &status) == 0 ? status.st_ino : 0;
}

using OpenFunction = int(char const*, int, ...);

int openLogged(OpenFunction* open, char const* path, int flags, mode_t mode) {
    std::lock_guard<std::mutex> const lock(mutex);
    bool const mayMake = (flags & O_CREAT) != 0;
    bool const wasThere = mayMake && fileAt(path) != 0;
    int const descriptor = open(path, flags, mode);
    if (descriptor >= 0 && mayMake && !wasThere)
        append(FileLogRecord::Kind::Make, statusOf(descriptor).st_ino, path);
    if (descriptor >= 0 && (flags & O_TRUNC) != 0)
        append(FileLogRecord::Kind::SetLength, statusOf(descriptor).st_ino);
    return descriptor;
}

template <class Sync>
int syncLogged(Sync* sync, int descriptor) {
    std::lock_guard<std::mutex> const lock(mutex);
    int const result = std::getenv("KELM_FILE_LOG_NO_SYNC") ? 0 : sync(descriptor);
    if (result == 0) {
        // A folder is known by its path.
        struct stat const status = statusOf(descriptor);
        char path[4096] = {};
        if (S_ISDIR(status.st_mode)) {
            char link[64] = {};
            ::snprintf(link, sizeof link, "/proc/self/fd/%d", descriptor);
            if (::readlink(link, path, sizeof path - 1) < 0)
                return result;
            append(FileLogRecord::Kind::SyncFolder, status.st_ino, path);
        } else {
            append(FileLogRecord::Kind::SyncFile, status.st_ino);
        }
    }
    return result;
}

using TruncateFunction = int(int, off_t);

int truncateLogged(TruncateFunction* truncate, int descriptor, off_t length) {
    std::lock_guard<std::mutex> const lock(mutex);
    int const result = truncate(descriptor, length);
    if (result == 0)
        append(FileLogRecord::Kind::SetLength, statusOf(descriptor).st_ino, nullptr, length);
    return result;
}

using WriteFunction = ssize_t(int, iovec const*, int, off_t);

ssize_t writeLogged(WriteFunction* write, int descriptor, iovec const* vectors, int count,
                    off_t position) {
    std::lock_guard<std::mutex> const lock(mutex);
    ssize_t const written = write(descriptor, vectors, count, position);
    if (written > 0)
        append(FileLogRecord::Kind::Write, statusOf(descriptor).st_ino, position, nullptr, vectors,
               count, static_cast<std::size_t>(written));
    return written;
}

/// `rename` gives the file at `from` the name `to`.
template <class Rename>
int renameLogged(char const* from, char const* to, Rename const& rename) {
    std::lock_guard<std::mutex> const lock(mutex);
    int const result = rename();
    if (result != 0)
        return result;
    iovec const formerName{const_cast<char*>(from), std::strlen(from)};
    append(FileLogRecord::Kind::Rename, fileAt(to), 0, to, &formerName, 1, formerName.iov_len);
    return result;
}

using WriteBytesFunction = ssize_t(int, void const*, std::size_t, off_t);

ssize_t writeBytesLogged(WriteBytesFunction* write, int descriptor, void const* bytes,
                         std::size_t count, off_t position) {
    iovec const vector{const_cast<void*>(bytes), count};
    std::lock_guard<std::mutex> const lock(mutex);
    ssize_t const written = write(descriptor, bytes, count, position);
    if (written > 0)
        append(FileLogRecord::Kind::Write, statusOf(descriptor).st_ino, position, nullptr, &vector,
               1, static_cast<std::size_t>(written));
    return written;
}

mode_t modeOf(int flags, va_list arguments) {
    return (flags & O_CREAT) != 0 ? static_cast<mode_t>(va_arg(arguments, int)) : 0;
}

} // namespace

KELM_REPLACED int open(char const* path, int flags, ...) {
    static auto* const system = systemFunction<OpenFunction>("open");
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = modeOf(flags, arguments);
    va_end(arguments);
    return openLogged(system, path, flags, mode);
}

KELM_REPLACED int open64(char const* path, int flags, ...) {
    static auto* const system = systemFunction<OpenFunction>("open64");
    va_list arguments;
    va_start(arguments, flags);
    mode_t const mode = modeOf(flags, arguments);
    va_end(arguments);
    return openLogged(system, path, flags, mode);
}

KELM_REPLACED ssize_t pwritev(int descriptor, iovec const* vectors, int count, off_t position) {
    static auto* const system = systemFunction<WriteFunction>("pwritev");
    return writeLogged(system, descriptor, vectors, count, position);
}

KELM_REPLACED ssize_t pwritev64(int descriptor, iovec const* vectors, int count, off_t position) {
    static auto* const system = systemFunction<WriteFunction>("pwritev64");
    return writeLogged(system, descriptor, vectors, count, position);
}

KELM_REPLACED ssize_t pwrite(int descriptor, void const* bytes, size_t count, off_t position) {
    static auto* const system = systemFunction<WriteBytesFunction>("pwrite");
    return writeBytesLogged(system, descriptor, bytes, count, position);
}

KELM_REPLACED ssize_t pwrite64(int descriptor, void const* bytes, size_t count, off_t position) {
    static auto* const system = systemFunction<WriteBytesFunction>("pwrite64");
    return writeBytesLogged(system, descriptor, bytes, count, position);
}

KELM_REPLACED int rename(char const* from, char const* to) noexcept {
    static auto* const system = systemFunction<int(char const*, char const*)>("rename");
    return renameLogged(from, to, [&] { return system(from, to); });
}

KELM_REPLACED int renameat2(int fromFolder, char const* from, int toFolder, char const* to,
                            unsigned int flags) noexcept {
    static auto* const system =
        systemFunction<int(int, char const*, int, char const*, unsigned int)>("renameat2");
    return renameLogged(from, to, [&] { return system(fromFolder, from, toFolder, to, flags); });
}

/// Refuses to let files share their space, which no record could tell.
KELM_REPLACED int ioctl(int descriptor, unsigned long request, ...) noexcept {
    static auto* const system = systemFunction<int(int, unsigned long, ...)>("ioctl");
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (request == FICLONE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return system(descriptor, request, argument);
}

KELM_REPLACED int ftruncate(int descriptor, off_t length) noexcept {
    static auto* const system = systemFunction<TruncateFunction>("ftruncate");
    return truncateLogged(system, descriptor, length);
}

KELM_REPLACED int ftruncate64(int descriptor, off_t length) noexcept {
    static auto* const system = systemFunction<TruncateFunction>("ftruncate64");
    return truncateLogged(system, descriptor, length);
}

KELM_REPLACED int fsync(int descriptor) {
    static auto* const system = systemFunction<int(int)>("fsync");
    return syncLogged(system, descriptor);
}

KELM_REPLACED int fdatasync(int descriptor) {
    static auto* const system = systemFunction<int(int)>("fdatasync");
    return syncLogged(system, descriptor);
}

KELM_REPLACED int link(char const* from, char const* to) noexcept {
    static auto* const system = systemFunction<int(char const*, char const*)>("link");
    std::lock_guard<std::mutex> const lock(mutex);
    int const result = system(from, to);
    if (result == 0)
        append(FileLogRecord::Kind::Link, fileAt(to), to);
    return result;
}

KELM_REPLACED int unlink(char const* path) noexcept {
    static auto* const system = systemFunction<int(char const*)>("unlink");
    std::lock_guard<std::mutex> const lock(mutex);
    unsigned long long const file = fileAt(path);
    int const result = system(path);
    if (result == 0)
        append(FileLogRecord::Kind::Remove, file, path);
    return result;
}

KELM_REPLACED int mkdir(char const* path, mode_t mode) noexcept {
    static auto* const system = systemFunction<int(char const*, mode_t)>("mkdir");
    std::lock_guard<std::mutex> const lock(mutex);
    int const result = system(path, mode);
    if (result == 0)
        append(FileLogRecord::Kind::MakeFolder, fileAt(path), path);
    return result;
}

KELM_REPLACED int rmdir(char const* path) noexcept {
    static auto* const system = systemFunction<int(char const*)>("rmdir");
    std::lock_guard<std::mutex> const lock(mutex);
    unsigned long long const file = fileAt(path);
    int const result = system(path);
    if (result == 0)
        append(FileLogRecord::Kind::Remove, file, path);
    return result;
}
