#pragma once

#include <exception>
#include <string>

#include "yx/string.h"

namespace kelm::host {

/// Describes an error in one line of UTF-8 that is safe to print: the message, then the properties
/// in parentheses. File URIs are shown as paths. Where the operating system has said something about a
/// file server that few know (`ESTALE`, `ENOLCK`), a sentence says what it means. The whole text is passed through `printable`.
std::string describeError(std::exception const& error);

/// The value of a property of an error, in UTF-8: a file URI becomes a path. Not passed through
/// `printable`.
std::string describeValue(yx::String const& value);

} // namespace kelm::host
