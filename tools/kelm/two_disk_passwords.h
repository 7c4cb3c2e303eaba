#pragma once

#include "tools/kelm/password_options.h"

namespace kelm::tool {

/// The passwords of a command with two disks: one for both, or one for each.
class TwoDiskPasswords {
public:
    /// Adds "--password-file" and its like for both disks and "--from-password-file" and its like
    /// for the first alone. This object must outlive the command.
    void addTo(CLI::App& command) {
        m_both.addTo(command, "", "of the disks");
        m_first.addTo(command, "from-", "of the first disk, if it has its own,");
    }

    PasswordOptions& ofFirst() { return m_first.isGiven() || !m_both.isGiven() ? m_first : m_both; }
    PasswordOptions& ofSecond() { return m_both; }

private:
    PasswordOptions m_both;
    PasswordOptions m_first;
};

} // namespace kelm::tool
