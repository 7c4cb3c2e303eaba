#pragma once

#include <memory>
#include <string>

#include "host/transfer/salvage.h"
#include "tools/kelm/exit_status.h"
#include "tools/kelm/invocation.h"
#include "tools/kelm/password_options.h"

namespace CLI {
class App;
}

namespace kelm::tool {

/// The options of commands that can read a damaged disk. An object must outlive the commands that
/// it was added to.
struct SalvageFlags {
    bool isOn = false;
    bool fromParent = false;

    /// Adds "--salvage" and "--from-parent".
    void addTo(CLI::App& command);

    /// Whether to salvage. The second option without the first is `UsageError`.
    bool takeEffect() const;
};

/// Opens a damaged disk that the user names, as `openDisk` does a sound one.
std::unique_ptr<host::SalvagedDisk> openToSalvage(Invocation& invocation, std::string const& file,
                                                  SalvageFlags const& flags,
                                                  PasswordOptions& passwords);

/// Prints a line for each damaged stretch and one for all of them, on standard error if `toError`,
/// since standard output may have an image. Returns the status with which the command ends.
ExitStatus reportDamage(Invocation& invocation, host::DamageList const& damage, bool toError);

} // namespace kelm::tool
