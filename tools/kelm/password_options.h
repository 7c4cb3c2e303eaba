#pragma once

#include <optional>
#include <string>

#include "host/system/cancel.h"
#include "host/system/password.h"
#include "yx/base.h"

namespace CLI {
class App;
}

namespace kelm::tool {

/// Under this title the help lists all that is about passwords.
inline constexpr char kPasswordHelpGroup[] = "Passwords";

/// Adds "--rounds" for the key derivation of a password.
void addRoundsOption(CLI::App& command, int& target);

/// The number of rounds that "--rounds" gives; -1 makes it what this machine can bear.
__int64 chooseRounds(int rounds);

/// The options that say where a password comes from. There is none for the password itself, since
/// every user of the machine can read command lines.
class PasswordOptions {
public:
    /// Adds "--password-file" and its like to `command`, with `prefix` behind the dashes; this
    /// object must outlive it. `whose` ends the descriptions, as in "of the disk".
    void addTo(CLI::App& command, std::string const& prefix, std::string const& whose);

    bool isGiven() const { return !m_file.empty() || m_fileDescriptor >= 0 || !m_variable.empty(); }

    /// Whether `read` has something to give: an option, or what the user typed before.
    bool isKnown() const { return isGiven() || m_password; }

    /// The password that the options name, read at most once. `PasswordError` if it cannot be read
    /// or is empty. `cancel` ends the waiting for it.
    host::Password const& read(host::CancelFlag const& cancel);

    /// The same, or what the user types at the prompt if no option is given.
    host::Password const& readOrPrompt(std::string const& prompt, bool twice,
                                       host::CancelFlag const& cancel);

private:
    host::Password readFromOptions(host::CancelFlag const& cancel) const;

    std::string m_file;
    int m_fileDescriptor = -1;
    std::string m_variable;
    std::optional<host::Password> m_password;
};

} // namespace kelm::tool
