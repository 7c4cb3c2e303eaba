#pragma once

#include <string>

namespace kelm::tool {

/// Refuses, with `UsageError`, the URI of a store for what only this machine has. `what` begins the
/// sentence, as "The image".
void verifyIsOnThisMachine(char const* what, std::string const& argument);

} // namespace kelm::tool
