#pragma once

#include <exception>
#include <string>

namespace kelm::host {

/// An error in one line, in UTF-8: the message, then the properties in parentheses. File URIs are
/// shown as the paths that the user knows.
std::string describeError(std::exception const& error);

/// A text in one line: blanks in the place of line ends.
std::string inOneLine(std::string text);

} // namespace kelm::host
