#pragma once

#include <string>

#include <CLI/CLI.hpp>

#include "yx/base.h"

namespace kelm::tool {

/// Adds an option whose value is a size, such as "40G".
CLI::Option* addSizeOption(CLI::App& command, std::string const& name, __int64& target,
                           std::string const& description);

/// Adds "--threads".
void addThreadsOption(CLI::App& command, int& target);

/// Adds "--force" for replacing files.
void addForceOption(CLI::App& command, bool& target);

/// Adds a required positional argument that names a file.
void addFileArgument(CLI::App& command, std::string const& name, std::string& target,
                     std::string const& description);

/// Puts an example under the command's help.
void setExample(CLI::App& command, std::string const& example);

} // namespace kelm::tool
