#include "host/backups/file_copy.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"
#include "yx/base.h"

namespace kelm::host {

namespace {

constexpr __int64 kCopyPieceBytes = __int64{1} << 20;

__int64 lengthOf(OpenFile const& file) {
    struct stat status = {};
    if (::fstat(file.fileDescriptor, &status) != 0)
        throwSystemError("Cannot look at the file", file.path);
    return status.st_size;
}

/// Less than asked for only at the end of the file.
std::size_t readPiece(OpenFile const& file, __int64 positionBytes, unsigned char* target,
                      std::size_t bytes) {
    std::size_t done = 0;
    while (done < bytes) {
        ssize_t const count = ::pread(file.fileDescriptor, target + done, bytes - done,
                                      positionBytes + static_cast<__int64>(done));
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            throwSystemError("Cannot read the file", file.path);
        if (count == 0)
            break;
        done += static_cast<std::size_t>(count);
    }
    return done;
}

void writePiece(OpenFile const& file, __int64 positionBytes, unsigned char const* source,
                std::size_t bytes) {
    for (std::size_t done = 0; done < bytes;) {
        ssize_t const count = ::pwrite(file.fileDescriptor, source + done, bytes - done,
                                       positionBytes + static_cast<__int64>(done));
        if (count < 0 && errno != EINTR)
            throwSystemError("Cannot write to the file", file.path);
        done += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
}

/// Calls `use(start, end)` for each stretch that is no hole. A file system that does not know its
/// holes has one stretch.
template <class Use>
void forEachStretch(OpenFile const& file, __int64 lengthBytes, Use const& use) {
    for (__int64 position = 0; position < lengthBytes;) {
        __int64 const start = ::lseek(file.fileDescriptor, position, SEEK_DATA);
        if (start < 0 && errno == ENXIO)
            return;
        if (start < 0) {
            use(position, lengthBytes);
            return;
        }
        __int64 const hole = ::lseek(file.fileDescriptor, start, SEEK_HOLE);
        __int64 const end = hole < 0 ? lengthBytes : std::min(hole, lengthBytes);
        use(start, end);
        position = end;
    }
}

/// Calls `use(position, bytes of the source, their count)` for all that is no hole of it.
template <class Use>
void forEachPiece(OpenFile const& source, __int64 lengthBytes, CancelFlag const* cancel,
                  TransferMeter* meter, Use const& use) {
    std::vector<unsigned char> piece(static_cast<std::size_t>(kCopyPieceBytes));
    forEachStretch(source, lengthBytes, [&](__int64 start, __int64 end) {
        for (__int64 position = start; position < end; position += kCopyPieceBytes) {
            if (cancel)
                cancel->check();
            auto const wanted = static_cast<std::size_t>(std::min(kCopyPieceBytes, end - position));
            std::size_t const count = readPiece(source, position, piece.data(), wanted);
            if (meter)
                meter->addRead(static_cast<__int64>(count));
            use(position, piece.data(), count);
        }
    });
}

} // namespace

void copyFileContent(OpenFile const& source, OpenFile const& target, CancelFlag const* cancel,
                     TransferMeter* meter) {
    if (::ioctl(target.fileDescriptor, FICLONE, source.fileDescriptor) == 0)
        return;
    __int64 const lengthBytes = lengthOf(source);
    if (::ftruncate(target.fileDescriptor, lengthBytes) != 0)
        throwSystemError("Cannot give the file its length", target.path);
    forEachPiece(source, lengthBytes, cancel, meter,
                 [&](__int64 position, unsigned char const* bytes, std::size_t count) {
                     writePiece(target, position, bytes, count);
                     if (meter)
                         meter->addStored(static_cast<__int64>(count));
                 });
    if (::fsync(target.fileDescriptor) != 0)
        throwSystemError("Cannot sync the file", target.path);
    // Read from the device, as far as the system lets go of what it remembers.
    ::posix_fadvise(target.fileDescriptor, 0, 0, POSIX_FADV_DONTNEED);
    if (!isCopyOf(source, target, cancel, meter)) {
        throw yx::CIOError(yx::CIOError::IOFailure, "The copy differs from the file.",
                           yx::CProps().add("path", yx::String::fromUTF8(target.path)), nullptr);
    }
}

bool isCopyOf(OpenFile const& source, OpenFile const& copy, CancelFlag const* cancel,
              TransferMeter* meter) {
    __int64 const lengthBytes = lengthOf(source);
    if (lengthOf(copy) != lengthBytes)
        return false;
    std::vector<unsigned char> copied(static_cast<std::size_t>(kCopyPieceBytes));
    bool isSame = true;
    // Where the copy has data and the file has none, that must be zeros: it is asked for both.
    for (auto const& [from, to] : {std::pair(&source, &copy), std::pair(&copy, &source)}) {
        forEachPiece(
            *from, lengthBytes, cancel, meter,
            [&, other = to](__int64 position, unsigned char const* bytes, std::size_t count) {
                isSame = isSame && readPiece(*other, position, copied.data(), count) == count &&
                         std::memcmp(bytes, copied.data(), count) == 0;
            });
    }
    return isSame;
}

} // namespace kelm::host
