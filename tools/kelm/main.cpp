#include <cstdio>
#include <exception>
#include <optional>
#include <sstream>

#include <CLI/CLI.hpp>

#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/output.h"

namespace {

using kelm::tool::ExitStatus;
using kelm::tool::Run;

void addCommands(CLI::App& program, Run& run) {
    program.set_version_flag("--version", "kelm " KELM_VERSION, "Print the version and exit");
    program.require_subcommand(1);
    kelm::tool::addCreateCommand(program, run);
    kelm::tool::addInfoCommand(program, run);
    kelm::tool::addListCommand(program, run);
    kelm::tool::addImportCommand(program, run);
    kelm::tool::addExportCommand(program, run);
    kelm::tool::addConvertCommand(program, run);
    kelm::tool::addCompareCommand(program, run);
    kelm::tool::addCheckCommand(program, run);
    kelm::tool::addDigestCommand(program, run);
    kelm::tool::addRepairCommand(program, run);
    kelm::tool::addCompactCommand(program, run);
    kelm::tool::addMapCommand(program, run);
    kelm::tool::addChildCommand(program, run);
    kelm::tool::addFlattenCommand(program, run);
    kelm::tool::addRebaseCommand(program, run);
    kelm::tool::addRenameCommand(program, run);
    kelm::tool::addCopyCommand(program, run);
    kelm::tool::addDeleteCommand(program, run);
    kelm::tool::addPasswordCommand(program, run);
    kelm::tool::addDropCommand(program, run);
    kelm::tool::addMergeCommand(program, run);
    kelm::tool::addPruneCommand(program, run);
    program.footer("'kelm COMMAND --help' describes a command and has an example.\n"
                   "Sizes are bytes, or numbers with one of the letters K, M, G, T.");
}

/// The help and the version are no errors. All others are reported in one line.
ExitStatus answerParseError(CLI::App const& program, CLI::ParseError const& error) {
    if (error.get_exit_code() == 0) {
        std::ostringstream text;
        program.exit(error, text, text);
        kelm::tool::print(text.str());
        kelm::tool::flushOutput();
        return ExitStatus::Done;
    }
    std::fprintf(stderr, "kelm: %s (see kelm --help)\n",
                 kelm::host::printable(error.what()).c_str());
    return ExitStatus::WrongUsage;
}

ExitStatus runProgram(int argc, char** argv) {
    CLI::App program("Disk images on sparse virtual disks", "kelm");
    Run run;
    addCommands(program, run);
    try {
        program.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return answerParseError(program, error);
    }
    kelm::tool::routeLibraryMessages();
    kelm::tool::Invocation invocation;
    ExitStatus const status = run(invocation);
    kelm::tool::flushOutput();
    return status;
}

} // namespace

int main(int argc, char** argv) {
    try {
        ExitStatus const status = runProgram(argc, argv);
        kelm::tool::reportIgnoredErrors(std::nullopt);
        return static_cast<int>(status);
    } catch (std::exception const& error) {
        kelm::tool::dropOutput();
        kelm::tool::reportIgnoredErrors(kelm::tool::exitStatusOf(error));
        std::fprintf(stderr, "kelm: %s\n", kelm::tool::describeError(error).c_str());
        return static_cast<int>(kelm::tool::exitStatusOf(error));
    }
}
