#pragma once

#include <string>

#include "yx/uri.h"

namespace kelm::host {

/// A file's name for people: the path of a `file:` URI, the text of any other. May hold every
/// character; `printable` comes before a terminal sees it.
std::string displayName(yx::CURI const& uri);

/// A text that may come from anybody, in a form that is safe to print in a line of output. What a
/// terminal could take for an order or a line end, and what no reader could see, is escaped: control
/// characters as "\n", "\r", "\t" and "\x1b", those above U+007F and the marks that turn the
/// direction of writing as "\u{202e}", bytes that are no UTF-8 as "\xff". All else stays.
std::string printable(std::string const& text);

/// The same for a JSON document, with JSON's own escapes, which leave its meaning as it is. Line
/// ends stay, since they lie between values. The document must be valid UTF-8.
std::string printableJSON(std::string const& document);

} // namespace kelm::host
