#include <iomanip>
#include <memory>
#include <sstream>

#include <CLI/CLI.hpp>

#include "host/check/disk_check.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/error_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/output.h"
#include "yx/log.h"
#include "yx/mt_rand.h"

namespace kelm::tool {

namespace {

struct CheckArguments {
    std::string disk;
    int threads = 0;
    bool own = false;
    bool needsDigests = false;
    double samplePercent = 0;
    unsigned long long seed = 0;
    PasswordOptions passwords;

    bool isSample() const { return samplePercent > 0; }

    host::CheckScope makeScope() const {
        host::CheckScope scope;
        scope.ownOnly = own;
        scope.needsDigests = needsDigests;
        if (isSample())
            scope.sample = host::GrainSample(samplePercent, seed);
        return scope;
    }
};

host::CheckResult checkWith(Invocation& invocation, yx::CURI const& uri,
                            CheckArguments const& arguments, yx::String const& password) {
    deriveKeys(invocation, uri, password);
    LongWork work(invocation, "check", arguments.threads);
    host::CheckScope const scope = arguments.makeScope();
    auto const check = [&](host::FindingCallback const& report) {
        return host::checkDisk(invocation.getFiles(), uri, password, work.getOptions(), report,
                               invocation.getTrust(), scope);
    };
    CommandResult& result = invocation.getResult();
    bool hasFindings = false;
    host::FindingCallback const report = [&](yx::CURI const& file, std::string const& text) {
        hasFindings = true;
        work.hideBar();
        std::string const name = host::displayName(file);
        result.print(host::printable(name) + ": " + text + "\n");
        result.addToList(formatElement(reportFinding(name, text)));
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
host::CheckResult checkAskingForPassword(Invocation& invocation, CheckArguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    warnOfEndedWork(invocation, uri);
    try {
        return checkWith(invocation, uri, arguments, usedPassword(invocation, arguments.passwords));
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    return checkWith(invocation, uri, arguments,
                     askForPassword(invocation, arguments.disk, arguments.passwords).get());
}

void warnOfOldDigests(yx::CURI const& disk) {
    yx::logWarning("The digests of '" + yx::String::fromUTF8(host::displayName(disk)) +
                   "' are out of date, since it was changed after they were made. Nothing was "
                   "compared with them; 'kelm digest' makes new ones.");
}

/// How much was read, and what that is worth.
void printSample(CommandResult& output, CheckArguments const& arguments,
                 host::CheckResult const& result) {
    bool const isSure = result.findingCount == 0 && result.readGrainCount < result.heldGrainCount;
    double const maxDamagedPercent =
        isSure ? host::GrainSample::calcMaxDamagedPercent(result.readGrainCount) : 0;
    std::ostringstream text;
    text << "read " << result.readGrainCount << " of " << result.heldGrainCount << " grains (seed "
         << arguments.seed << ")";
    if (isSure) {
        text << "; with 95 % certainty, at most " << std::setprecision(3) << maxDamagedPercent
             << " % of them are damaged";
    }
    output.print(text.str() + "\n");
    nlohmann::ordered_json sample{{"seed", arguments.seed}};
    if (isSure)
        sample["maxDamagedPercent"] = maxDamagedPercent;
    output.add({{"sample", sample}});
}

constexpr char kWhatIsNotNoticed[] =
    "What it cannot notice:\n"
    "  - without digests: other bytes in a grain that is stored plain, since only compressed "
    "grains\n"
    "    have checksums; grains that both copies of a grain table have lost; a file of the disk\n"
    "    that was replaced by an older one\n"
    "  - a disk that was replaced by an older one with its digests\n"
    "  - in a disk that is not encrypted: what somebody changed together with the digests\n"
    "  - whether the disk holds what it was made of: 'kelm compare' tells that\n\n";

ExitStatus check(Invocation& invocation, CheckArguments& arguments) {
    invocation.setLong();
    if (arguments.isSample() && arguments.seed == 0)
        arguments.seed = yx::CMTRand::drawGlobal32();
    CommandResult& output = invocation.getResult();
    output.beginList("findings");
    host::CheckResult const result = checkAskingForPassword(invocation, arguments);
    for (yx::CURI const& disk : result.outOfDate)
        warnOfOldDigests(disk);
    if (arguments.isSample())
        printSample(output, arguments, result);
    __int64 const findings = result.findingCount;
    output.add({{"findingCount", findings},
                {"readGrains", result.readGrainCount},
                {"heldGrains", result.heldGrainCount},
                {"outOfDateDigests", listNames(result.outOfDate)}});
    if (findings == 0)
        return ExitStatus::Done;
    output.print(std::to_string(findings) + (findings == 1 ? " finding\n" : " findings\n"));
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
    addFlag(command, "--own", arguments->own, "Check this disk alone, not its parents");
    addFlag(command, "--digests", arguments->needsDigests,
            "Take it for a finding that a disk has no digests, or none that are up to date");
    addPercentOption(command, "--sample", arguments->samplePercent,
                     "Read a random part of the grains, and say how sure that is");
    command
        .add_option("--seed", arguments->seed,
                    "Choose the same grains as an earlier --sample that printed this number")
        ->check(CLI::PositiveNumber);
    addThreadsOption(command, arguments->threads);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
