#pragma once

#include <string>
#include <vector>

#include "yx/uri.h"

// Include the command line library only where its templates are used: it takes longer to compile
// than all the rest.
namespace CLI {
class App;
}

namespace kelm::tool {

/// Adds an option without a value, which sets `target`.
void addFlag(CLI::App& command, std::string const& name, bool& target,
             std::string const& description);

/// Adds an option that names a file.
void addFileOption(CLI::App& command, std::string const& name, std::string& target,
                   std::string const& description, bool required);

/// Adds an option whose value is any text.
void addTextOption(CLI::App& command, std::string const& name, std::string& target,
                   std::string const& description);

/// Adds an option whose value is a size, such as "40G".
void addSizeOption(CLI::App& command, std::string const& name, __int64& target,
                   std::string const& description);

/// Adds an option whose value is a number from `min` to `max`.
void addNumberOption(CLI::App& command, std::string const& name, int& target, int min, int max,
                     std::string const& description);

/// A part in percent: a number above 0 and up to 100.
void addPercentOption(CLI::App& command, std::string const& name, double& target,
                      std::string const& description);

/// Adds an option for a folder, which may be given several times.
void addFoldersOption(CLI::App& command, std::string const& name, std::vector<std::string>& target,
                      std::string const& description);

/// Adds "--look", which may be given several times, for folders in which children of a disk are.
void addLookOption(CLI::App& command, std::vector<std::string>& target);

/// The folders of "--look"; without any, that of the disk.
std::vector<yx::CURI> foldersToLookIn(std::vector<std::string> const& lookIn,
                                      yx::CURI const& mainFile);

/// The new name that a user gives a file: that file's own name in a folder, if it is one. Either
/// may be of any store.
yx::CURI nameIn(std::string const& target, std::string const& file);

/// Adds "--threads".
void addThreadsOption(CLI::App& command, int& target);

/// Adds "--force" for replacing files.
void addForceOption(CLI::App& command, bool& target);

/// Adds "--unfinished" for reading disks that were not filled to their end.
void addUnfinishedOption(CLI::App& command, bool& target);

/// Adds "--wait" for disks that are in use.
void addWaitOption(CLI::App& command, int& targetSeconds);

/// Adds "--store-timeout" for stores that do not answer.
void addStoreTimeoutOption(CLI::App& command, int& targetSeconds);

/// Adds a required positional argument that names a file.
void addFileArgument(CLI::App& command, std::string const& name, std::string& target,
                     std::string const& description);

} // namespace kelm::tool
