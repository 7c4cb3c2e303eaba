#pragma once

#include <string>
#include <utility>

#include "host/system/cancel.h"
#include "yx/error.h"

namespace kelm::host {

/// Owns a file descriptor of the operating system, or borrows one of the standard streams.
class FileDescriptor {
public:
    /// None.
    FileDescriptor() = default;

    /// Takes a descriptor over, and closes it at the end.
    static FileDescriptor own(int value) { return FileDescriptor(value, true); }

    /// Uses a descriptor that stays open, such as a standard stream.
    static FileDescriptor borrow(int value) { return FileDescriptor(value, false); }

    /// Moving hands the descriptor over; a moved-from object has none, or what the target had.
    FileDescriptor(FileDescriptor&& other) noexcept
        : m_value(std::exchange(other.m_value, -1)), m_owned(other.m_owned) {}
    FileDescriptor& operator=(FileDescriptor&& other) noexcept {
        std::swap(m_value, other.m_value);
        std::swap(m_owned, other.m_owned);
        return *this;
    }
    ~FileDescriptor();

    /// The operating system's number; -1 for none.
    int get() const { return m_value; }

    /// Whether there is a descriptor.
    bool isOpen() const { return m_value >= 0; }

private:
    FileDescriptor(int value, bool owned) : m_value(value), m_owned(owned) {}

    int m_value = -1;
    bool m_owned = false;
};

/// Waits until one of `events` of `poll` has come, or throws `CancelledError`. A signal between the
/// look at the flag and the waiting is noticed a little later. Without a flag, waits for ever.
void waitUntilReady(int fileDescriptor, short events, CancelFlag const* cancel);

/// Opens a file to read from, a named pipe without waiting for its writer: `waitUntilReady` comes
/// before each read, which may be EAGAIN. No descriptor, and `errno`, on failure.
FileDescriptor openForReading(std::string const& path);

/// Opens a named pipe to write to, as soon as it has a reader; `cancel` ends the waiting. Writing
/// never waits: it is EAGAIN while the pipe is full. No descriptor, and `errno`, on failure.
FileDescriptor openPipeForWriting(std::string const& path, CancelFlag const* cancel);

/// Throws a `CIOError` with the operating system's words for the present `errno`, and "path".
[[noreturn]] void throwSystemError(std::string const& what, std::string const& path);

} // namespace kelm::host
