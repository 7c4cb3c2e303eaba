#pragma once

#include <string>

#include "yx/string.h"

namespace kelm::host {

/// A password in memory, overwritten when it is given up.
class Password {
public:
    Password() = default;
    explicit Password(yx::String const& text) : m_text(text) {}
    Password(Password const&) = default;
    Password& operator=(Password const& other);
    ~Password() { m_text.wipe(); }

    yx::String const& get() const { return m_text; }
    bool isEmpty() const { return m_text.isEmpty(); }

private:
    yx::String m_text;
};

/// Passwords are UTF-8 and at most 4096 bytes. A line end at the end does not count. What cannot be
/// read or is too long is `yx::CIOError`, an unset variable `NotFound`.
Password readPasswordFile(std::string const& path);
Password readPasswordFileDescriptor(int fileDescriptor);
Password readPasswordVariable(std::string const& name);

/// Asks on the controlling terminal, without echo; with `twice`, asks again and refuses a second
/// answer that differs. Without a terminal: `yx::CIOError` `NotSupported`.
Password promptForPassword(std::string const& prompt, bool twice);

} // namespace kelm::host
