#pragma once

#include <string>
#include <string_view>

#include "yx/uri.h"

namespace kelm::host {

/// A file's name for people: the path of a `file:` URI, the text of any other. It may hold any
/// character; pass it through `printable` before it goes to a terminal.
std::string displayName(yx::CURI const& uri);

/// Whether a name stands before another one in a list for people, in which "day-9" stands before
/// "day-10": digits that follow each other are one number. Of numbers of one value the one with more
/// zeros in front comes first. A strict order of all names; other characters count by their bytes.
bool precedesByNumbers(std::string_view name, std::string_view other);

/// A text from an untrusted source, in a form that is safe to print in one line. Escaped are
/// control characters ("\n", "\r", "\t", "\x1b"), control characters above U+007F and marks that
/// change the direction of writing ("\u{202e}"), and bytes that are not UTF-8 ("\xff"). All else
/// stays.
std::string printable(std::string const& text);

/// A JSON document in a form that is safe to print: the same characters are escaped as JSON does
/// it, which keeps the document's meaning. Line ends stay, since they stand between values. The
/// document must be valid UTF-8.
std::string printableJSON(std::string const& document);

} // namespace kelm::host
