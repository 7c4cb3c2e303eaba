#pragma once

#include <exception>
#include <string>

namespace kelm::host {

/// Describes an error in one line of UTF-8 that is safe to print: the message, then the properties
/// in parentheses. File URIs are shown as paths, and the whole text is passed through `printable`.
std::string describeError(std::exception const& error);

} // namespace kelm::host
