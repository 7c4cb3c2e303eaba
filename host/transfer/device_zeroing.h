#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/system/cancel.h"
#include "host/transfer/target_zeros.h"

namespace kelm::host {

/// A block device as far as its ranges are made zeros. Errors are `yx::CIOError`.
class ZeroableDevice {
public:
    virtual ~ZeroableDevice() = default;

    /// Gives a range back, which begins and ends at multiples of `DeviceZeroing::kPunchUnitBytes`,
    /// so that it reads as zeros. False if the device cannot.
    virtual bool tryPunch(__int64 positionBytes, __int64 bytes) = 0;

    /// Reads a range as it is on the device. False if it may not be read.
    virtual bool tryRead(__int64 positionBytes, unsigned char* data, int bytes) = 0;

    /// Writes zeros.
    virtual void writeZeros(__int64 positionBytes, int bytes) = 0;
};

/// An open device of this machine. `file` must outlive the object, and be open for writing; `path`
/// is for errors.
std::unique_ptr<ZeroableDevice> makeZeroableDevice(int file, std::string const& path);

/// Makes ranges of a block device zeros so that a thin one stays thin. A range is given back, and
/// then read: a device that says it can, and has something else than zeros there, gets zeros
/// written, and no more ranges are given back. Where a device cannot, a range is read, and written
/// only where it is not zeros; for a while after data was met, it is written without a look, since
/// there will be more of it. Not for files, whose holes need no look.
class DeviceZeroing {
public:
    /// What is given back begins and ends with such units.
    static constexpr __int64 kPunchUnitBytes = 4096;

    /// How much is given back at once.
    static constexpr __int64 kPunchStepBytes = __int64{64} << 20;

    /// How much is read at once.
    static constexpr int kLookBytes = 1 << 20;

    /// How much is written at most before there is another look.
    static constexpr __int64 kMaxBlindBytes = __int64{32} << 20;

    /// `cancel`, which may be null and must outlive the object, is checked before each step.
    DeviceZeroing(std::unique_ptr<ZeroableDevice> device, CancelFlag const* cancel);

    /// Makes a range zeros.
    void zero(__int64 positionBytes, __int64 bytes);

    /// What became of all ranges so far.
    TargetZeros const& getDone() const { return m_done; }

private:
    void zeroStep(__int64 positionBytes, __int64 endBytes);
    void zeroPunched(__int64 positionBytes, __int64 endBytes);
    void zeroPlain(__int64 positionBytes, __int64 endBytes);
    bool isZero(__int64 positionBytes, int bytes);
    void write(__int64 positionBytes, int bytes);

    std::unique_ptr<ZeroableDevice> m_device;
    CancelFlag const* m_cancel;
    std::vector<unsigned char> m_look;
    TargetZeros m_done;
    bool m_canPunch = true;
    bool m_canRead = true;

    /// How long the latest run without looks was to be, and how much of it is left.
    __int64 m_blindBytes = 0;
    __int64 m_blindBytesLeft = 0;
};

} // namespace kelm::host
