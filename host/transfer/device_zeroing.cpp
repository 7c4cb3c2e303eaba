#include "host/transfer/device_zeroing.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"
#include "yx/internal/early_write_back.h"
#include "yx/memory.h"

namespace kelm::host {

namespace {

class NativeZeroableDevice : public ZeroableDevice {
public:
    NativeZeroableDevice(int file, std::string const& path) : m_file(file), m_path(path) {}

    bool tryPunch(__int64 positionBytes, __int64 bytes) override {
#if defined(FALLOC_FL_PUNCH_HOLE)
        // For a device this is no mere hint, as discarding is: it does it, or says that it cannot.
        // Whatever else is wrong will show when the range is written.
        int result = -1;
        do {
            result = ::fallocate(m_file, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, positionBytes,
                                 bytes);
        } while (result != 0 && errno == EINTR);
        return result == 0;
#else
        static_cast<void>(positionBytes);
        static_cast<void>(bytes);
        return false;
#endif
    }

    bool tryRead(__int64 positionBytes, unsigned char* data, int bytes) override {
        int readBytes = 0;
        while (readBytes < bytes) {
            ssize_t const count =
                ::pread(m_file, data + readBytes, static_cast<std::size_t>(bytes - readBytes),
                        positionBytes + readBytes);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                return false;
            readBytes += static_cast<int>(count);
        }
        // Nobody wants these zeros in memory.
        ::posix_fadvise(m_file, positionBytes, bytes, POSIX_FADV_DONTNEED);
        return true;
    }

    void writeZeros(__int64 positionBytes, int bytes) override {
        static constexpr std::array<unsigned char, 65536> kZeros{};
        while (bytes > 0) {
            std::size_t const step = std::min(static_cast<std::size_t>(bytes), kZeros.size());
            ssize_t const count = ::pwrite(m_file, kZeros.data(), step, positionBytes);
            if (count < 0 && errno == EINTR)
                continue;
            if (count < 0)
                throwSystemError("Cannot write the image", m_path);
            m_earlyWriteBack.onWritten(m_file, positionBytes, count);
            positionBytes += count;
            bytes -= static_cast<int>(count);
        }
    }

private:
    int m_file;
    std::string m_path;
    yx::detail::EarlyWriteBack m_earlyWriteBack;
};

constexpr __int64 roundUp(__int64 bytes, __int64 unitBytes) {
    return (bytes + unitBytes - 1) / unitBytes * unitBytes;
}

} // namespace

std::unique_ptr<ZeroableDevice> makeZeroableDevice(int file, std::string const& path) {
    return std::make_unique<NativeZeroableDevice>(file, path);
}

DeviceZeroing::DeviceZeroing(std::unique_ptr<ZeroableDevice> device, CancelFlag const* cancel)
    : m_device(std::move(device)), m_cancel(cancel), m_look(kLookBytes) {}

void DeviceZeroing::zero(__int64 positionBytes, __int64 bytes) {
    assert(positionBytes >= 0 && bytes >= 0);
    __int64 const endBytes = positionBytes + bytes;
    while (positionBytes < endBytes) {
        __int64 const stepEndBytes =
            std::min(endBytes, roundUp(positionBytes + 1, kPunchStepBytes));
        zeroStep(positionBytes, stepEndBytes);
        positionBytes = stepEndBytes;
    }
}

void DeviceZeroing::zeroStep(__int64 positionBytes, __int64 endBytes) {
    __int64 const punchBytes = roundUp(positionBytes, kPunchUnitBytes);
    __int64 const punchEndBytes = endBytes / kPunchUnitBytes * kPunchUnitBytes;
    if (m_cancel)
        m_cancel->check();
    if (m_canPunch && punchBytes < punchEndBytes)
        m_canPunch = m_device->tryPunch(punchBytes, punchEndBytes - punchBytes);
    if (!m_canPunch || punchBytes >= punchEndBytes) {
        zeroPlain(positionBytes, endBytes);
        return;
    }
    zeroPlain(positionBytes, punchBytes);
    zeroPunched(punchBytes, punchEndBytes);
    zeroPlain(punchEndBytes, endBytes);
}

void DeviceZeroing::zeroPunched(__int64 positionBytes, __int64 endBytes) {
    while (positionBytes < endBytes) {
        int const bytes = static_cast<int>(std::min<__int64>(kLookBytes, endBytes - positionBytes));
        if (m_cancel)
            m_cancel->check();
        if (isZero(positionBytes, bytes)) {
            m_done.punchedBytes += bytes;
        } else {
            m_canPunch = false;
            write(positionBytes, bytes);
        }
        positionBytes += bytes;
    }
}

void DeviceZeroing::zeroPlain(__int64 positionBytes, __int64 endBytes) {
    while (positionBytes < endBytes) {
        int const bytes = static_cast<int>(std::min<__int64>(kLookBytes, endBytes - positionBytes));
        if (m_cancel)
            m_cancel->check();
        if (m_blindBytesLeft > 0) {
            m_blindBytesLeft -= bytes;
            write(positionBytes, bytes);
        } else if (isZero(positionBytes, bytes)) {
            m_blindBytes = 0;
            m_done.leftBytes += bytes;
        } else {
            m_blindBytes = std::clamp<__int64>(m_blindBytes * 2, kLookBytes, kMaxBlindBytes);
            m_blindBytesLeft = m_blindBytes;
            write(positionBytes, bytes);
        }
        positionBytes += bytes;
    }
}

bool DeviceZeroing::isZero(__int64 positionBytes, int bytes) {
    assert(bytes > 0 && bytes <= kLookBytes);
    if (m_canRead)
        m_canRead = m_device->tryRead(positionBytes, m_look.data(), bytes);
    return m_canRead && yx::isAllZero(m_look.data(), static_cast<std::size_t>(bytes));
}

void DeviceZeroing::write(__int64 positionBytes, int bytes) {
    m_device->writeZeros(positionBytes, bytes);
    m_done.writtenBytes += bytes;
}

} // namespace kelm::host
