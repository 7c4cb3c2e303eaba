#pragma once

#include <string>

#include "host/disk/safe_disk.h"
#include "tools/kelm/invocation.h"
#include "tools/kelm/password_options.h"

namespace CLI {
class App;
}

namespace kelm::tool {

/// The options that say what a new disk is to be. Objects must outlive the command that they were
/// added to.
struct NewDiskOptions {
    bool compressed = false;
    int level = -1;
    __int64 splitBytes = -1;
    bool encrypt = false;
    bool onDemand = false;
    std::string parent;
    bool force = false;

    /// Adds the options of every new disk: level, splitting, encryption, force.
    void addCommonTo(CLI::App& command);

    void addCompressedTo(CLI::App& command);
    void addParentTo(CLI::App& command);

    /// What to make. `sizeBytes` of -1 is the size of the parent; without a parent it is
    /// `UsageError`. A new disk is encrypted if that is asked for, or if its parent is; the password
    /// is then that of `passwords`, or typed by the user.
    host::NewDisk makeRequest(Invocation& invocation, __int64 sizeBytes,
                              PasswordOptions& passwords) const;

private:
    void inheritFromParent(Invocation& invocation, PasswordOptions& passwords,
                           host::NewDisk& request) const;
};

} // namespace kelm::tool
