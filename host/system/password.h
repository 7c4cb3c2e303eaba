#pragma once

#include <string>

#include "host/system/cancel.h"
#include "yx/string.h"

namespace kelm::host {

/// A password in memory, overwritten when it is given up.
class Password {
public:
    /// The empty password.
    Password() = default;

    /// A copy of `text`, whose owner wipes the original.
    explicit Password(yx::String const& text) : m_text(text) {}

    Password(Password const&) = default;

    /// Overwrites the old password first.
    Password& operator=(Password const& other);
    ~Password() { m_text.wipe(); }

    /// The text, as long as the object is unchanged.
    yx::String const& get() const { return m_text; }

    /// Whether there is no password.
    bool isEmpty() const { return m_text.isEmpty(); }

private:
    yx::String m_text;
};

/// Passwords are UTF-8 and at most 4096 bytes. A line end at the end does not count. What cannot be
/// read or is too long is `yx::CIOError`, an unset variable `NotFound`. While a password keeps one
/// waiting, `cancel` is looked at several times a second and ends it with `CancelledError`.
Password readPasswordFile(std::string const& path, CancelFlag const& cancel);
Password readPasswordFileDescriptor(int fileDescriptor, CancelFlag const& cancel);
Password readPasswordVariable(std::string const& name);

/// Asks on the controlling terminal, without echo; with `twice`, asks again and refuses a second
/// answer that differs. Without a terminal: `yx::CIOError` `NotSupported`.
Password promptForPassword(std::string const& prompt, bool twice, CancelFlag const& cancel);

} // namespace kelm::host
