#pragma once

#include <string>

#include "host/disk/safe_disk.h"
#include "tools/kelm/invocation.h"
#include "tools/kelm/password_options.h"

namespace CLI {
class App;
}

namespace kelm::tool {

/// The options that describe a new disk. An object must outlive the commands that it was added to.
struct NewDiskOptions {
    bool compressed = false;
    int level = -1;
    __int64 splitBytes = -1;
    bool encrypt = false;
    int rounds = -1;
    bool onDemand = false;
    std::string parent;
    bool force = false;
    std::string label;
    bool noDigests = false;

    /// Adds the options of every new disk: level, splitting, encryption, a label, force.
    void addCommonTo(CLI::App& command);

    void addCompressedTo(CLI::App& command);

    /// For a disk that is filled.
    void addDigestsTo(CLI::App& command);
    void addParentTo(CLI::App& command);

    /// The request for the new disk. A `sizeBytes` of -1 means the size of the parent; without a
    /// parent it is `UsageError`. The disk is encrypted if the user asks for that or if its parent
    /// is encrypted. The password is then that of `passwords`, or the user types it.
    host::NewDisk makeRequest(Invocation& invocation, __int64 sizeBytes,
                              PasswordOptions& passwords) const;

private:
    void inheritFromParent(Invocation& invocation, PasswordOptions& passwords,
                           host::NewDisk& request) const;
    void inheritKeyDerivation(Invocation const& invocation, host::SafeDisk& parentDisk,
                              host::NewDisk& request) const;
};

} // namespace kelm::tool
