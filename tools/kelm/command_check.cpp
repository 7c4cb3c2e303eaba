#include <memory>

#include <CLI/CLI.hpp>

#include "host/check/disk_check.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/output.h"

namespace kelm::tool {

namespace {

struct CheckArguments {
    std::string disk;
    int threads = 0;
    PasswordOptions passwords;
};

__int64 checkWith(Invocation& invocation, yx::CURI const& uri, int threads,
                  yx::String const& password) {
    LongWork work(invocation, "check", threads);
    auto const check = [&](host::FindingCallback const& report) {
        return host::checkDisk(invocation.getFiles(), uri, password, work.getOptions(), report,
                               invocation.getTrust());
    };
    bool hasFindings = false;
    host::FindingCallback const report = [&](yx::CURI const& file, std::string const& text) {
        hasFindings = true;
        work.hideBar();
        print(host::printable(host::displayName(file)) + ": " + text + "\n");
        // The next one may be a long time coming.
        flushOutput();
    };
    return invocation.getWait().retry([&] {
        try {
            return check(report);
        } catch (yx::CError const& error) {
            // To begin anew would print it all again.
            if (hasFindings && host::isInUse(error))
                invocation.setWait(std::chrono::seconds(0));
            throw;
        }
    });
}

/// Asks for the password only if the disk turns out to need one.
__int64 checkAskingForPassword(Invocation& invocation, CheckArguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    warnOfEndedWork(uri);
    try {
        return checkWith(invocation, uri, arguments.threads,
                         usedPassword(invocation, arguments.passwords));
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    return checkWith(invocation, uri, arguments.threads,
                     askForPassword(invocation, arguments.disk, arguments.passwords).get());
}

constexpr char kWhatIsNotNoticed[] =
    "What it cannot notice:\n"
    "  - other bytes in a grain that is stored plain: only compressed grains have checksums\n"
    "  - grains that both copies of a grain table have lost\n"
    "  - a disk, or a file of it, that was replaced by an older one that is sound in itself\n"
    "  - whether the disk holds what it was made of: 'kelm compare' tells that\n\n";

ExitStatus check(Invocation& invocation, CheckArguments& arguments) {
    __int64 const findings = checkAskingForPassword(invocation, arguments);
    if (findings == 0)
        return ExitStatus::Done;
    print(std::to_string(findings) + (findings == 1 ? " finding\n" : " findings\n"));
    return ExitStatus::Differences;
}

} // namespace

void addCheckCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<CheckArguments>();
    CLI::App& command = addCommand(
        program, run, "check", "Read everything of a disk and its parents, and list what is wrong",
        "kelm check backup.vmdk && echo sound",
        [arguments](Invocation& invocation) { return check(invocation, *arguments); });
    command.footer(kWhatIsNotNoticed + command.get_footer());
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    addThreadsOption(command, arguments->threads);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
