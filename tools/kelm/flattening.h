#pragma once

#include <string>

#include "tools/kelm/invocation.h"
#include "tools/kelm/password_options.h"

namespace kelm::tool {

/// Gives a child disk all that it has from its parents, and leaves them; goes on where an earlier
/// attempt was killed. A disk without a parent is `UsageError`.
void flattenDisk(Invocation& invocation, std::string const& file, PasswordOptions& passwords);

} // namespace kelm::tool
