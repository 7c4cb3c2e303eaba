#pragma once

#include <functional>

#include <CLI/CLI.hpp>

#include "tools/kelm/exit_status.h"
#include "tools/kelm/invocation.h"

namespace kelm::tool {

/// What the command line asks for.
using Run = std::function<ExitStatus(Invocation&)>;

// Each adds its command to the program. Parsing a command line that names the command sets `run`,
// which is then to be called; what it throws are `UsageError` and the errors of the library.

void addCreateCommand(CLI::App& program, Run& run);
void addInfoCommand(CLI::App& program, Run& run);
void addImportCommand(CLI::App& program, Run& run);
void addExportCommand(CLI::App& program, Run& run);
void addConvertCommand(CLI::App& program, Run& run);
void addCompareCommand(CLI::App& program, Run& run);
void addCheckCommand(CLI::App& program, Run& run);
void addMapCommand(CLI::App& program, Run& run);
void addChildCommand(CLI::App& program, Run& run);
void addFlattenCommand(CLI::App& program, Run& run);
void addRebaseCommand(CLI::App& program, Run& run);

} // namespace kelm::tool
