#pragma once

namespace yx::detail {

/// Owns a file descriptor of the operating system. Internal.
class FileDescriptor {
public:
    /// Takes over `descriptor`; below 0 is none.
    explicit FileDescriptor(int descriptor) : m_descriptor(descriptor) {}
    FileDescriptor(FileDescriptor const&) = delete;
    FileDescriptor& operator=(FileDescriptor const&) = delete;

    /// Ignores a failure; call `close` to see it.
    ~FileDescriptor() { close(); }

    int get() const { return m_descriptor; }

    /// Gives the descriptor back and returns 0, or the `errno` value of the failure; the descriptor
    /// is gone in any case. Without a descriptor nothing happens.
    int close();

private:
    int m_descriptor;
};

/// Opens a file for this process alone, never as its terminal, without waiting for the other end of
/// a pipe. Returns the descriptor, or the negative `errno` value.
int openDescriptor(char const* path, int flags);

} // namespace yx::detail
