#pragma once

#include <functional>
#include <string>

#include "tools/kelm/exit_status.h"
#include "tools/kelm/invocation.h"

namespace CLI {
class App;
}

namespace kelm::tool {

/// The work that the command line asks for.
using Run = std::function<ExitStatus(Invocation&)>;

/// Adds a command, with an example under its help, with "--max-rounds", the limit for the keys that
/// it derives, with the options that say how far disks are trusted, and with "--wait". Parsing a
/// command line that names it sets `run` to `action` under these.
CLI::App& addCommand(CLI::App& program, Run& run, std::string const& name,
                     std::string const& description, std::string const& example, Run action);

/// The same for a command that opens no disk: only with the options that say how it tells what it
/// does, which all commands have.
CLI::App& addPlainCommand(CLI::App& program, Run& run, std::string const& name,
                          std::string const& description, std::string const& example, Run action);

// Each adds its command to the program. Parsing a command line that names the command sets `run`,
// which the caller then calls. It throws `UsageError` and the errors of the library.

void addCopyCommand(CLI::App& program, Run& run);
void addCreateCommand(CLI::App& program, Run& run);
void addInfoCommand(CLI::App& program, Run& run);
void addListCommand(CLI::App& program, Run& run);
void addImportCommand(CLI::App& program, Run& run);
void addExportCommand(CLI::App& program, Run& run);
void addConvertCommand(CLI::App& program, Run& run);
void addCompareCommand(CLI::App& program, Run& run);
void addCheckCommand(CLI::App& program, Run& run);
void addDigestCommand(CLI::App& program, Run& run);
void addRepairCommand(CLI::App& program, Run& run);
void addCompactCommand(CLI::App& program, Run& run);
void addMapCommand(CLI::App& program, Run& run);
void addFilesCommand(CLI::App& program, Run& run);
void addMountCommand(CLI::App& program, Run& run);
void addUmountCommand(CLI::App& program, Run& run);
void addChildCommand(CLI::App& program, Run& run);
void addFlattenCommand(CLI::App& program, Run& run);
void addPasswordCommand(CLI::App& program, Run& run);
void addRebaseCommand(CLI::App& program, Run& run);
void addRenameCommand(CLI::App& program, Run& run);
void addDeleteCommand(CLI::App& program, Run& run);
void addDropCommand(CLI::App& program, Run& run);
void addMergeCommand(CLI::App& program, Run& run);
void addPruneCommand(CLI::App& program, Run& run);
void addUnlockCommand(CLI::App& program, Run& run);
void addHelpCommand(CLI::App& program, Run& run);

} // namespace kelm::tool
