#pragma once

#include <ctime>
#include <optional>
#include <string>

namespace kelm::host {

/// A point in time as text of RFC 3339 in UTC, to the second: "2031-05-04T02:00:00Z". Texts of the
/// years 1000 to 9999 sort as their times do.
std::string formatTime(std::time_t time);

/// The point in time that such a text names; nothing for any other text, also for one with another
/// offset than "Z".
std::optional<std::time_t> parseTime(std::string const& text);

} // namespace kelm::host
