#pragma once

#include <string>
#include <vector>

namespace kelm::tool {

/// The topics beside the commands of which the manual page, kelm.1, has a section.
std::vector<std::string> listManualTopics();

/// That section as text, filled to the width of a terminal; empty if there is no such topic.
std::string formatManualTopic(std::string const& topic);

} // namespace kelm::tool
