#pragma once

#include "yx/base.h"

namespace CLI {
class App;
}

namespace kelm::tool {

class Invocation;

/// The options of commands that move much data: how much of the machine they may take. An object
/// must outlive the command that it was added to.
struct TransferOptions {
    __int64 bytesPerSecond = -1;
    bool isNice = false;

    void addTo(CLI::App& command);

    /// Makes them those of the command, before it starts threads. It ends with a summary.
    void takeEffect(Invocation& invocation) const;
};

} // namespace kelm::tool
