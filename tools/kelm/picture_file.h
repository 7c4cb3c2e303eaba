#pragma once

#include <string>

#include "tools/kelm/invocation.h"

namespace kelm::tool {

/// Writes an SVG document into a file that the user names, or to standard output for "-". A file
/// that exists is `CIOError` `AlreadyExists` unless `force` is given; even then, a file of a disk
/// is `UsageError`.
void writePicture(Invocation& invocation, std::string const& document, std::string const& file,
                  bool force);

} // namespace kelm::tool
