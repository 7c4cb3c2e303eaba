#include <algorithm>
#include <cstdio>
#include <exception>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <malloc.h>
#include <nlohmann/json.hpp>

#include "host/store/stores.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/output.h"

namespace {

using kelm::tool::CommandResult;
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
    kelm::tool::addFilesCommand(program, run);
    kelm::tool::addMountCommand(program, run);
    kelm::tool::addUmountCommand(program, run);
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
    kelm::tool::addUnlockCommand(program, run);
    kelm::tool::addHelpCommand(program, run);
    program.footer("'kelm COMMAND --help' describes a command and has an example.\n"
                   "Sizes are bytes, or numbers with one of the letters K, M, G, T.");
}

/// What the command line says, as far as it can be read.
bool asksForJSON(std::vector<std::string> const& arguments) {
    return std::find(arguments.begin(), arguments.end(), "--json") != arguments.end();
}

/// Where "-" is standard output.
bool mayWriteToOutput(std::vector<std::string> const& arguments) {
    auto const isAny = [&](char const* text) {
        return std::find(arguments.begin(), arguments.end(), text) != arguments.end();
    };
    return isAny("-") && (arguments.front() == "export" || isAny("--svg"));
}

/// The help and the version are no errors. All others are reported in one line.
ExitStatus answerParseError(CLI::App const& program, CLI::ParseError const& error,
                            std::vector<std::string> const& arguments, CommandResult& result) {
    if (error.get_exit_code() == 0) {
        std::ostringstream text;
        program.exit(error, text, text);
        kelm::tool::print(text.str());
        kelm::tool::flushOutput();
        return ExitStatus::Done;
    }
    std::string const message = kelm::host::printable(error.what());
    std::fprintf(stderr, "kelm: %s (see kelm --help)\n", message.c_str());
    if (asksForJSON(arguments)) {
        result.begin(arguments.front(), nlohmann::ordered_json::object());
        result.useJSON();
        if (mayWriteToOutput(arguments))
            result.leaveStandardOutput();
        result.setWrongUsage(message);
        result.finish(ExitStatus::WrongUsage);
    }
    return ExitStatus::WrongUsage;
}

/// Tells of an error with which the program ends.
ExitStatus answerError(CommandResult& result, std::exception const& error) {
    ExitStatus const status = kelm::tool::exitStatusOf(error);
    kelm::tool::reportIgnoredErrors(result, status);
    std::fprintf(stderr, "kelm: %s\n", kelm::tool::describeError(error).c_str());
    if (!result.isJSON() || kelm::tool::hasOutputFailed()) {
        kelm::tool::dropOutput();
        return status;
    }
    try {
        result.setError(error);
        result.finish(status);
    } catch (std::exception const&) {
        // The error that came first matters more.
        kelm::tool::dropOutput();
    }
    return status;
}

ExitStatus runCommand(Run const& run, CommandResult& result) {
    kelm::tool::routeLibraryMessages(result);
    kelm::tool::Invocation invocation(result);
    // What is printed at the end may have to wait for a reader, and signals must end that.
    try {
        ExitStatus const status = run(invocation);
        kelm::tool::reportIgnoredErrors(result, std::nullopt);
        invocation.tellMeter();
        invocation.summarize();
        result.finish(status);
        return status;
    } catch (std::exception const& error) {
        invocation.tellMeter();
        return answerError(result, error);
    }
}

/// Where disks lie in a store, its client takes and gives back large buffers in many threads. The
/// allocator would keep more of them the longer it goes on, in pieces that nobody can use: up to a
/// half more memory. Each of its own is as fast.
void limitKeptBuffers(std::vector<std::string> const& arguments) {
    constexpr int kOwnMappingBytes = 128 * 1024;
    if (std::any_of(arguments.begin(), arguments.end(), kelm::host::isStoreURI))
        ::mallopt(M_MMAP_THRESHOLD, kOwnMappingBytes);
}

ExitStatus runProgram(int argc, char** argv, CommandResult& result) {
    CLI::App program("Disk images on sparse virtual disks", "kelm");
    std::vector<std::string> const arguments(argv + 1, argv + argc);
    Run run;
    addCommands(program, run);
    try {
        program.parse(argc, argv);
    } catch (CLI::ParseError const& error) {
        return answerParseError(program, error, arguments, result);
    }
    limitKeptBuffers(arguments);
    return runCommand(run, result);
}

} // namespace

int main(int argc, char** argv) {
    CommandResult result;
    try {
        return static_cast<int>(runProgram(argc, argv, result));
    } catch (std::exception const& error) {
        return static_cast<int>(answerError(result, error));
    }
}
