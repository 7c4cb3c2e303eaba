#include "integrations/nbdkit/command_line.h"

#include <algorithm>
#include <fstream>
#include <string_view>

namespace kelm::nbd {

namespace {

/// Options may be written together (-fr) and shortened (--read). What merely looks like one of
/// these, such as a word behind another option, does no harm: the disk is then taken later.
bool mayMeanReadOnly(std::string_view argument) {
    if (argument.starts_with("--filter"))
        return true;
    if (argument.starts_with("--run"))
        return false;
    if (argument.starts_with("--"))
        return argument.starts_with("--r");
    return argument.starts_with("-") && argument.find('r') != std::string_view::npos;
}

} // namespace

std::vector<std::string> readCommandLine() {
    std::ifstream stream("/proc/self/cmdline", std::ios::binary);
    std::vector<std::string> arguments;
    for (std::string argument; std::getline(stream, argument, '\0');)
        arguments.push_back(argument);
    return arguments;
}

bool mayOpenReadOnly(std::vector<std::string> const& commandLine) {
    return commandLine.empty() ||
           std::any_of(commandLine.begin() + 1, commandLine.end(), mayMeanReadOnly);
}

} // namespace kelm::nbd
