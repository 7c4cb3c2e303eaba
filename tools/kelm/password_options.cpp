#include "tools/kelm/password_options.h"

#include <limits>

#include <CLI/CLI.hpp>

#include "host/system/key_rounds.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/local_file.h"

namespace kelm::tool {

namespace {

/// Runs `obtain` and turns what it throws into a `PasswordError`.
template <class Obtain>
host::Password obtainPassword(Obtain const& obtain) {
    try {
        host::Password password = obtain();
        if (password.isEmpty())
            throw PasswordError("The password is empty.");
        return password;
    } catch (PasswordError const&) {
        throw;
    } catch (host::CancelledError const&) {
        throw;
    } catch (yx::CError const& error) {
        throw PasswordError(error);
    }
}

/// Readers refuse fewer.
constexpr int kFewestRounds = 1000;

} // namespace

void addRoundsOption(CLI::App& command, int& target) {
    command
        .add_option("--rounds", target,
                    "How often the password is hashed before it opens the disk; by default as "
                    "often as takes half a second, at least 600000 times")
        ->type_name("N")
        ->group(kPasswordHelpGroup)
        ->check(CLI::Range(kFewestRounds, std::numeric_limits<int>::max()));
}

__int64 chooseRounds(int rounds) {
    return rounds == -1 ? host::measureKeyRounds() : rounds;
}

void PasswordOptions::addTo(CLI::App& command, std::string const& prefix,
                            std::string const& whose) {
    std::string const name = "--" + prefix + "password-";
    CLI::Option* const file =
        command.add_option(name + "file", m_file, "Read the password " + whose + " from a file");
    CLI::Option* const fileDescriptor =
        command.add_option(name + "fd", m_fileDescriptor,
                           "Read the password " + whose + " from an open file descriptor");
    CLI::Option* const variable = command.add_option(
        name + "env", m_variable, "Take the password " + whose + " from an environment variable");
    file->type_name("FILE")->group(kPasswordHelpGroup);
    fileDescriptor->type_name("N")
        ->group(kPasswordHelpGroup)
        ->check(CLI::Range(0, std::numeric_limits<int>::max()))
        ->excludes(file);
    variable->type_name("NAME")
        ->group(kPasswordHelpGroup)
        ->excludes(file)
        ->excludes(fileDescriptor);
}

host::Password PasswordOptions::readFromOptions(host::CancelFlag const& cancel) const {
    verifyIsOnThisMachine("The file with a password", m_file);
    if (!m_file.empty())
        return host::readPasswordFile(m_file, cancel);
    if (m_fileDescriptor >= 0)
        return host::readPasswordFileDescriptor(m_fileDescriptor, cancel);
    return host::readPasswordVariable(m_variable);
}

host::Password const& PasswordOptions::read(host::CancelFlag const& cancel) {
    if (!m_password)
        m_password = obtainPassword([&] { return readFromOptions(cancel); });
    return *m_password;
}

host::Password const& PasswordOptions::readOrPrompt(std::string const& prompt, bool twice,
                                                    host::CancelFlag const& cancel) {
    if (isGiven())
        return read(cancel);
    if (!m_password)
        m_password = obtainPassword([&] { return host::promptForPassword(prompt, twice, cancel); });
    return *m_password;
}

} // namespace kelm::tool
