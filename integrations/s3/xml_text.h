#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// As much of XML as the answers of servers of buckets need: elements without attributes that
/// matter, none of which lies in another one of its name.
namespace kelm::s3 {

/// What is in each element of a name, in order, with its markup.
std::vector<std::string_view> findElements(std::string_view xml, std::string_view name);

/// The text of the first element of a name, entities resolved; nothing if there is none.
std::optional<std::string> findText(std::string_view xml, std::string_view name);

/// Text with the characters that markup consists of replaced by entities.
std::string toXMLText(std::string_view text);

} // namespace kelm::s3
