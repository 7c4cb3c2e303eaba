#pragma once

#include <string>

namespace kelm::host {

/// The name of this machine, as `hostname` prints it; "" if it has none.
std::string getMachineName();

} // namespace kelm::host
