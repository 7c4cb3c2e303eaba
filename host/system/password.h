#pragma once

#include <string>

#include "host/system/cancel.h"
#include "yx/string.h"

namespace kelm::host {

/// A password in memory that is overwritten when the object ends or is assigned to.
class Password {
public:
    /// The empty password.
    Password() = default;

    /// A copy of `text`. The caller wipes the original.
    explicit Password(yx::String const& text) : m_text(text) {}

    Password(Password const&) = default;

    /// Overwrites the old password first.
    Password& operator=(Password const& other);
    ~Password() { m_text.wipe(); }

    /// The text. The reference is valid as long as the object is unchanged.
    yx::String const& get() const { return m_text; }

    /// Whether there is no password.
    bool isEmpty() const { return m_text.isEmpty(); }

private:
    yx::String m_text;
};

/// Read a password from a file, an open file descriptor or an environment variable. It is UTF-8, at
/// most 4096 bytes; a line end at its end does not count. One that cannot be read, or is too long,
/// is `yx::CIOError`; an unset variable is `NotFound`. Once `cancel` is set, the wait for input
/// ends with `CancelledError` within a fraction of a second.
Password readPasswordFile(std::string const& path, CancelFlag const& cancel);
Password readPasswordFileDescriptor(int fileDescriptor, CancelFlag const& cancel);
Password readPasswordVariable(std::string const& name);

/// Asks for a password on the controlling terminal, without echo. With `twice`, asks a second time;
/// two different answers are `yx::CError` "The two passwords differ.". Without a terminal:
/// `yx::CIOError` `NotSupported`.
Password promptForPassword(std::string const& prompt, bool twice, CancelFlag const& cancel);

} // namespace kelm::host
