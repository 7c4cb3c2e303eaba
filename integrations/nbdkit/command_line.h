#pragma once

#include <string>
#include <vector>

namespace kelm::nbd {

/// The command line of this process, program name included; empty if it cannot be read.
std::vector<std::string> readCommandLine();

/// Whether the nbdkit that was started like this may open its plugin read-only: because of `-r`, or
/// because of a filter that wants it so. False only if it certainly opens it for writing.
///
/// nbdkit says so to a plugin only when the first client connects. A server that certainly writes
/// can take its disk at once, and be refused at once if somebody else has it.
bool mayOpenReadOnly(std::vector<std::string> const& commandLine);

} // namespace kelm::nbd
