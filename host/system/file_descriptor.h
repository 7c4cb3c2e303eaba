#pragma once

#include <cassert>
#include <string>
#include <utility>

#include "host/system/cancel.h"
#include "yx/error.h"

namespace kelm::host {

/// A file descriptor of the operating system that is closed at the end of its scope, or a standard
/// stream that stays open. Not for files of a disk: they are opened through `yx::IFileSystem`.
class FileDescriptor {
public:
    /// No descriptor.
    FileDescriptor() = default;

    /// Takes over a descriptor and closes it at the end. -1 stands for none.
    static FileDescriptor own(int value) { return FileDescriptor(value, true); }

    /// Uses a descriptor that stays open, such as a standard stream.
    static FileDescriptor borrow(int value) { return FileDescriptor(value, false); }

    /// Move construction leaves none in the source; move assignment swaps the two.
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
    FileDescriptor(int value, bool owned) : m_value(value), m_owned(owned) {
        assert(m_value >= -1);
    }

    int m_value = -1;
    bool m_owned = false;
};

/// Waits until one of `events` of `poll` has occurred, or throws `CancelledError`, also where the
/// flag was set before the event occurred. A flag that is set just before the wait begins is noticed
/// a little later. Without a flag, waits for ever.
void waitUntilReady(int fileDescriptor, short events, CancelFlag const* cancel);

/// Opens a file for reading. Does not wait for the writer of a named pipe: call `waitUntilReady`
/// before each read, which may still fail with EAGAIN. On failure, returns no descriptor and sets
/// `errno`.
FileDescriptor openForReading(std::string const& path);

/// Opens a named pipe for writing as soon as it has a reader; `cancel` ends the wait. Writing never
/// waits: it fails with EAGAIN while the pipe is full. On failure, returns no descriptor and sets
/// `errno`.
FileDescriptor openPipeForWriting(std::string const& path, CancelFlag const* cancel);

/// Throws a `CIOError` for the current `errno`: the code of `yx::getSystemErrorCode`, the message
/// `what` ": " and the operating system's words, and "path".
[[noreturn]] void throwSystemError(std::string const& what, std::string const& path);

} // namespace kelm::host
