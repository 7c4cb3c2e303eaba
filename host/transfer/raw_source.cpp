#include "host/transfer/raw_source.h"

#include <algorithm>
#include <cassert>
#include <cerrno>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelm::host {

namespace {

FileDescriptor openSource(std::string const& path) {
    if (path == "-")
        return FileDescriptor::borrow(STDIN_FILENO);
    FileDescriptor file = openForReading(path);
    if (!file.isOpen())
        throwSystemError("Cannot open the image", path);
    return file;
}

} // namespace

RawSource::RawSource(std::string const& path, CancelFlag const* cancel)
    : m_path(path), m_cancel(cancel), m_file(openSource(path)) {
    struct stat status = {};
    if (::fstat(m_file.get(), &status) != 0)
        throwSystemError("Cannot read the image", m_path);
    if (S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        throwSystemError("Cannot read the image", m_path);
    }
    if (!S_ISREG(status.st_mode) && !S_ISBLK(status.st_mode))
        return;
    // Standard input may be a file that somebody has read part of.
    off_t const start = ::lseek(m_file.get(), 0, SEEK_CUR);
    m_endBytes = ::lseek(m_file.get(), 0, SEEK_END);
    if (start < 0 || m_endBytes < 0 || ::lseek(m_file.get(), start, SEEK_SET) < 0)
        throwSystemError("Cannot read the image", m_path);
    m_startBytes = start;
    m_positionBytes = start;
    m_dataEndBytes = start;
    // Kernels that know the holes of a device tell them like those of a file.
    m_mayHaveHoles = true;
    ::posix_fadvise(m_file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
}

void RawSource::findData() {
    m_dataStartBytes = ::lseek(m_file.get(), m_positionBytes, SEEK_DATA);
    if (m_dataStartBytes < 0) {
        // ENXIO: nothing but a hole up to the end. Anything else: nobody knows of holes here.
        m_mayHaveHoles = errno == ENXIO;
        m_dataStartBytes = m_mayHaveHoles ? m_endBytes : m_positionBytes;
        m_dataEndBytes = m_endBytes;
        return;
    }
    m_dataEndBytes = ::lseek(m_file.get(), m_dataStartBytes, SEEK_HOLE);
    if (m_dataEndBytes <= m_dataStartBytes)
        m_dataEndBytes = m_endBytes;
    assert(m_dataStartBytes >= m_positionBytes);
}

bool RawSource::isInHole(__int64 endBytes) {
    if (!m_mayHaveHoles)
        return false;
    if (m_positionBytes >= m_dataEndBytes)
        findData();
    return endBytes <= m_dataStartBytes;
}

__int64 RawSource::findHoleBytes() {
    if (m_endBytes < 0 || m_positionBytes >= m_endBytes || !isInHole(m_positionBytes + 1))
        return 0;
    return m_dataStartBytes - m_positionBytes;
}

void RawSource::skipTo(__int64 positionBytes) {
    assert(m_endBytes >= 0);
    assert(positionBytes >= getPosition() && positionBytes <= getLength());
    m_positionBytes = m_startBytes + positionBytes;
}

void RawSource::excludeFree(FreeSpace const& space) {
    assert(m_endBytes >= 0);
    m_freeSpace = &space;
}

bool RawSource::isFree(__int64 endBytes) const {
    if (!m_freeSpace)
        return false;
    Stretch const free = m_freeSpace->findFree({m_positionBytes, endBytes});
    return free.startBytes == m_positionBytes && free.endBytes >= endBytes;
}

void RawSource::clearFree(unsigned char* buffer, int bytes) {
    if (!m_freeSpace)
        return;
    Stretch rest{m_positionBytes, m_positionBytes + bytes};
    for (Stretch free = m_freeSpace->findFree(rest); !free.isEmpty();
         free = m_freeSpace->findFree(rest)) {
        std::fill(buffer + (free.startBytes - m_positionBytes),
                  buffer + (free.endBytes - m_positionBytes), static_cast<unsigned char>(0));
        m_excludedBytes += free.endBytes - free.startBytes;
        rest.startBytes = free.endBytes;
    }
}

int RawSource::readNext(unsigned char* buffer, int capacityBytes, bool& isHole) {
    assert(capacityBytes > 0);
    assert(m_positionBytes >= m_startBytes);
    isHole = false;
    int count = capacityBytes;
    if (m_endBytes < 0) {
        count = readFromPipe(buffer, capacityBytes);
    } else {
        count = static_cast<int>(std::min<__int64>(count, m_endBytes - m_positionBytes));
        if (count <= 0)
            return 0;
        isHole = isInHole(m_positionBytes + count);
        if (!isHole && isFree(m_positionBytes + count)) {
            isHole = true;
            m_excludedBytes += count;
        }
        if (!isHole) {
            count = readFromFile(buffer, count);
            clearFree(buffer, count);
        }
    }
    m_positionBytes += count;
    assert(m_endBytes < 0 || m_positionBytes <= m_endBytes);
    return count;
}

int RawSource::readFromFile(unsigned char* buffer, int bytes) {
    int done = 0;
    while (done < bytes) {
        ssize_t const count =
            ::pread(m_file.get(), buffer + done, static_cast<std::size_t>(bytes - done),
                    m_positionBytes + done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throwSystemError("Cannot read the image", m_path);
        if (count == 0) {
            throw yx::CIOError(yx::CIOError::UnexpectedEnd,
                               "The image became shorter while it was read.",
                               yx::CProps().add("path", yx::String::fromUTF8(m_path)), nullptr);
        }
        done += static_cast<int>(count);
    }
    return done;
}

int RawSource::readFromPipe(unsigned char* buffer, int bytes) {
    int done = 0;
    while (done < bytes) {
        waitUntilReady(m_file.get(), POLLIN, m_cancel);
        ssize_t const count =
            ::read(m_file.get(), buffer + done, static_cast<std::size_t>(bytes - done));
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0)
            throwSystemError("Cannot read the image", m_path);
        if (count == 0)
            break;
        done += static_cast<int>(count);
    }
    return done;
}

} // namespace kelm::host
