#pragma once

#include <exception>
#include <string>

namespace kelm::host {

/// An error in one line of UTF-8 that is safe to print: the message, then the properties in
/// parentheses. File URIs are shown as the paths that the user knows, and everything as `printable`
/// leaves it.
std::string describeError(std::exception const& error);

} // namespace kelm::host
