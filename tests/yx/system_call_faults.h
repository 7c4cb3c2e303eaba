#pragma once

#include <cstddef>

/// Makes calls of the operating system fail or fall short in this test program. The program defines
/// the calls itself, in front of the system's library, and passes them on.
namespace system_call_faults {

enum class Call {
    Pread,
    Pwritev,
    Ftruncate,
    Fdatasync,
    Fsync,
    Syncfs,
    Close,
    Fcntl,
    Count_,
};

/// All faults and counts end when it goes. One at a time.
class Scope {
public:
    Scope();
    Scope(Scope const&) = delete;
    Scope& operator=(Scope const&) = delete;
    ~Scope();

    /// Lets `times` calls fail with this `errno` value, without being made (but a failing close
    /// closes), after the next `after` calls. 0 lets them report success, as little as that is
    /// true.
    void fail(Call call, int errorNumber, int times = 1, int after = 0);

    /// Lets each transfer move this many bytes at most; 0 makes it move none and succeed.
    void limit(Call call, std::size_t sizeBytes);

    /// Lets all open files look like block devices, whose status tells no size.
    void pretendBlockDevices();

    /// How often the call was made, failures included.
    int count(Call call) const;
};

} // namespace system_call_faults
