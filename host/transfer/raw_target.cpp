#include "host/transfer/raw_target.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelm::host {

namespace {

constexpr std::size_t kZerosSizeBytes = 65536;

std::string realPath(std::string const& path) {
    std::unique_ptr<char, decltype(&std::free)> const resolved(::realpath(path.c_str(), nullptr),
                                                               &std::free);
    return resolved ? resolved.get() : path;
}

/// A pipe gets a descriptor of our own, which does not wait, so that no signal is lost while a
/// write begins; whoever shares standard output sees nothing of that.
FileDescriptor openStandardOutput() {
    struct stat status = {};
    if (::fstat(STDOUT_FILENO, &status) == 0 && S_ISFIFO(status.st_mode)) {
        constexpr int kFlags = O_WRONLY | O_CLOEXEC | O_NONBLOCK;
        FileDescriptor pipe = FileDescriptor::own(::open("/proc/self/fd/1", kFlags));
        if (pipe.isOpen())
            return pipe;
    }
    // Somebody else's pipe, or one without a reader, is left to the first write.
    return FileDescriptor::borrow(STDOUT_FILENO);
}

/// How many bytes the file or device can take from its current position on; nothing for a pipe, and
/// where there is no limit. Asks the descriptor, since standard output may lead to a device.
std::optional<__int64> findRoom(int file) {
    struct stat status = {};
    __int64 const positionBytes = ::lseek(file, 0, SEEK_CUR);
    if (positionBytes < 0 || ::fstat(file, &status) != 0)
        return std::nullopt;
    if (S_ISBLK(status.st_mode)) {
        __int64 const endBytes = ::lseek(file, 0, SEEK_END);
        ::lseek(file, positionBytes, SEEK_SET);
        return endBytes - positionBytes;
    }
    struct rlimit limit = {};
    if (!S_ISREG(status.st_mode) || ::getrlimit(RLIMIT_FSIZE, &limit) != 0 ||
        limit.rlim_cur == RLIM_INFINITY)
        return std::nullopt;
    return static_cast<__int64>(limit.rlim_cur) - positionBytes;
}

[[noreturn]] void throwTargetInUse(char const* message, std::string const& path) {
    throw yx::CLockFileError(message, yx::CProps().add("path", yx::String::fromUTF8(path)),
                             nullptr);
}

/// For reading too, if that is allowed, to see what has to be written.
FileDescriptor openDeviceAlone(std::string const& path) {
    // Alone, a device whose file system is mounted is not opened.
    constexpr int kDeviceFlags = O_CLOEXEC | O_EXCL;
    FileDescriptor device = FileDescriptor::own(::open(path.c_str(), O_RDWR | kDeviceFlags));
    if (!device.isOpen() && (errno == EACCES || errno == EPERM))
        device = FileDescriptor::own(::open(path.c_str(), O_WRONLY | kDeviceFlags));
    return device;
}

/// What is left of the parts behind so many bytes.
std::span<iovec> skipBytes(std::span<iovec> parts, std::size_t bytes) {
    while (!parts.empty() && bytes >= parts.front().iov_len) {
        bytes -= parts.front().iov_len;
        parts = parts.subspan(1);
    }
    if (!parts.empty()) {
        parts.front().iov_base = static_cast<unsigned char*>(parts.front().iov_base) + bytes;
        parts.front().iov_len -= bytes;
    }
    return parts;
}

} // namespace

RawTarget::RawTarget(std::string const& path, bool overwrite, CancelFlag const* cancel,
                     ZeroPolicy zeroPolicy)
    : m_path(path), m_cancel(cancel), m_zeroPolicy(zeroPolicy) {
    if (path == "-")
        m_file = openStandardOutput();
    else
        open(overwrite);
}

void RawTarget::open(bool overwrite) {
    constexpr mode_t kMode = 0666;
    constexpr int kFlags = O_WRONLY | O_CLOEXEC;
    m_file = FileDescriptor::own(::open(m_path.c_str(), kFlags | O_CREAT | O_EXCL, kMode));
    bool const made = m_file.isOpen();
    if (!made && errno != EEXIST)
        throwSystemError("Cannot make the image", m_path);
    struct stat status = {};
    if (!made) {
        bool const replaces = ::stat(m_path.c_str(), &status) != 0 || S_ISREG(status.st_mode) ||
                              S_ISBLK(status.st_mode) || S_ISDIR(status.st_mode);
        if (replaces && !overwrite) {
            errno = EEXIST;
            throwSystemError("Cannot make the image", m_path);
        }
        if (S_ISFIFO(status.st_mode))
            m_file = openPipeForWriting(m_path, m_cancel);
        else if (S_ISBLK(status.st_mode))
            m_file = openDeviceAlone(m_path);
        else
            m_file = FileDescriptor::own(::open(m_path.c_str(), kFlags));
        if (!m_file.isOpen() && errno == EBUSY)
            throwTargetInUse("The device is in use.", m_path);
        if (!m_file.isOpen())
            throwSystemError("Cannot make the image", m_path);
    }
    if (::fstat(m_file.get(), &status) != 0)
        throwSystemError("Cannot make the image", m_path);
    if (S_ISREG(status.st_mode))
        m_kind = Kind::File;
    else if (S_ISBLK(status.st_mode))
        m_kind = Kind::Device;
    if (m_kind == Kind::Device && m_zeroPolicy == ZeroPolicy::Punch)
        m_deviceZeroing.emplace(makeZeroableDevice(m_file.get(), m_path), m_cancel);
    m_realPath = realPath(m_path);
    m_isOurs = made;
    if (m_kind == Kind::File)
        lock();
}

void RawTarget::lock() {
    // The same open file, so that the lock is that of `m_file`.
    FileDescriptor same = FileDescriptor::own(::fcntl(m_file.get(), F_DUPFD_CLOEXEC, 0));
    if (!same.isOpen())
        throwSystemError("Cannot lock the image", m_path);
    std::optional<FileLock> lock = FileLock::tryTake(std::move(same), FileLock::Type::Exclusive);
    if (!lock) {
        // Whoever was quicker has the file now.
        m_isOurs = false;
        throwTargetInUse("The file is in use.", m_path);
    }
    m_lock = std::move(*lock);
}

RawTarget::~RawTarget() {
    if (m_isOurs && !m_finished)
        ::unlink(m_realPath.c_str());
}

void RawTarget::verifyHasRoomFor(__int64 imageBytes) const {
    assert(imageBytes >= 0 && m_positionBytes == 0);
    std::optional<__int64> const roomBytes = findRoom(m_file.get());
    if (!roomBytes || imageBytes <= *roomBytes)
        return;
    throw yx::CIOError(yx::CIOError::NoSpace, "The target is too small for the image.",
                       yx::CProps()
                           .add("path", yx::String::fromUTF8(m_path))
                           .add("imageSize", yx::toString(imageBytes))
                           .add("targetSize", yx::toString(*roomBytes)),
                       nullptr);
}

void RawTarget::beginWriting() {
    if (m_kind != Kind::File || m_isOurs)
        return;
    // What is skipped stays.
    if (m_zeroPolicy != ZeroPolicy::Skip && ::ftruncate(m_file.get(), 0) != 0)
        throwSystemError("Cannot write the image", m_path);
    m_isOurs = true;
}

void RawTarget::write(unsigned char const* data, int bytes) {
    if (beginWritingAnywhere())
        writeAt(m_positionBytes, data, bytes);
    else
        writeToPipe(data, bytes);
    passWritten(bytes);
}

void RawTarget::writeZeros(__int64 bytes) {
    assert(bytes >= 0 && !m_finished);
    beginWriting();
    if (m_kind == Kind::Pipe || m_zeroPolicy == ZeroPolicy::Write) {
        writeEveryZero(bytes);
        return;
    }
    if (m_deviceZeroing)
        m_deviceZeroing->zero(m_positionBytes, bytes);
    else if (m_zeroPolicy == ZeroPolicy::Skip)
        m_zeros.leftBytes += bytes;
    else
        m_zeros.punchedBytes += bytes;
    m_positionBytes += bytes;
}

void RawTarget::writeEveryZero(__int64 bytes) {
    static constexpr std::array<unsigned char, kZerosSizeBytes> kZeros{};
    m_zeros.writtenBytes += bytes;
    while (bytes > 0) {
        int const step = static_cast<int>(std::min<__int64>(bytes, kZerosSizeBytes));
        if (m_cancel)
            m_cancel->check();
        write(kZeros.data(), step);
        bytes -= step;
    }
}

TargetZeros RawTarget::getZeros() const {
    return m_deviceZeroing ? m_deviceZeroing->getDone() : m_zeros;
}

bool RawTarget::beginWritingAnywhere() {
    beginWriting();
    return m_kind != Kind::Pipe;
}

void RawTarget::writeAt(__int64 positionBytes, unsigned char const* data, int bytes) const {
    // Nothing is read into it.
    iovec part = {const_cast<unsigned char*>(data), static_cast<std::size_t>(bytes)};
    writeAt(positionBytes, std::span(&part, 1));
}

void RawTarget::writeAt(__int64 positionBytes, std::span<iovec> parts) const {
    assert(m_kind == Kind::Device || (m_kind == Kind::File && m_isOurs));
    assert(positionBytes >= 0);
    while (!parts.empty()) {
        ssize_t const count =
            ::pwritev(m_file.get(), parts.data(), static_cast<int>(parts.size()), positionBytes);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throwSystemError("Cannot write the image", m_path);
        positionBytes += count;
        parts = skipBytes(parts, static_cast<std::size_t>(count));
    }
}

void RawTarget::passWritten(__int64 bytes) {
    assert(bytes >= 0 && !m_finished);
    if (m_kind != Kind::Pipe)
        m_earlyWriteBack.onWritten(m_file.get(), m_positionBytes, bytes);
    m_positionBytes += bytes;
}

void RawTarget::writeToPipe(unsigned char const* data, int bytes) {
    while (bytes > 0) {
        waitUntilReady(m_file.get(), POLLOUT, m_cancel);
        ssize_t const count = ::write(m_file.get(), data, static_cast<std::size_t>(bytes));
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0)
            throwSystemError("Cannot write the image", m_path);
        data += count;
        bytes -= static_cast<int>(count);
    }
}

void RawTarget::syncFolder() const {
    std::string const folder = m_realPath.substr(0, m_realPath.rfind('/') + 1);
    FileDescriptor const descriptor =
        FileDescriptor::own(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    // A folder that may be written to but not read cannot be synced.
    if (descriptor.isOpen() && ::fsync(descriptor.get()) != 0)
        throwSystemError("Cannot write the image", m_path);
}

void RawTarget::finish() {
    beginWriting();
    if (m_kind == Kind::File && ::ftruncate(m_file.get(), m_positionBytes) != 0)
        throwSystemError("Cannot write the image", m_path);
    if (m_kind != Kind::Pipe && ::fdatasync(m_file.get()) != 0)
        throwSystemError("Cannot write the image", m_path);
    if (m_kind == Kind::File)
        syncFolder();
    m_finished = true;
}

} // namespace kelm::host
