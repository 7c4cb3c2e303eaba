#include <cstdio>
#include <memory>

#include "host/disk_check.h"
#include "host/file_names.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct Arguments {
    std::string disk;
    PasswordOptions passwords;
};

__int64 checkWith(Invocation& invocation, yx::CURI const& uri, yx::String const& password) {
    LongWork const work(invocation, "check");
    return host::checkDisk(invocation.getFiles(), uri, password, work.getOptions(),
                           [](yx::CURI const& file, std::string const& text) {
                               std::printf("%s: %s\n", host::displayName(file).c_str(),
                                           text.c_str());
                           });
}

/// Asks for the password only when the disk turns out to need one.
__int64 checkAskingForPassword(Invocation& invocation, Arguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    try {
        return checkWith(invocation, uri, usedPassword(arguments.passwords));
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    return checkWith(invocation, uri, askForPassword(arguments.disk, arguments.passwords).get());
}

ExitStatus check(Invocation& invocation, Arguments& arguments) {
    __int64 const findings = checkAskingForPassword(invocation, arguments);
    if (findings == 0)
        return ExitStatus::Done;
    std::printf("%lld findings\n", findings);
    return ExitStatus::Differences;
}

} // namespace

void addCheckCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<Arguments>();
    CLI::App& command = *program.add_subcommand(
        "check", "Read everything of a disk and its parents, and tell what is wrong");
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    arguments->passwords.addTo(command, "", "of the disk");
    setExample(command, "kelm check backup.vmdk && echo sound");
    command.callback([arguments, &run] {
        run = [arguments](Invocation& invocation) { return check(invocation, *arguments); };
    });
}

} // namespace kelm::tool
