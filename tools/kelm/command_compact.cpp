#include <memory>

#include "host/backups/disk_compaction.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct CompactArguments {
    std::string disk;
    PasswordOptions passwords;
};

__int64 bytesWon(host::CompactedFile const& file) {
    return file.bytesBefore - file.bytesAfter;
}

std::string formatCompaction(std::vector<host::CompactedFile> const& files) {
    std::string text;
    for (host::CompactedFile const& file : files) {
        std::string const name = host::printable(host::displayName(file.file));
        if (!file.obstacle.empty())
            text += name + ": left as it is: " + file.obstacle + "\n";
        else if (bytesWon(file) > 0)
            text += name + ": " + std::to_string(bytesWon(file)) + " bytes less, " +
                    std::to_string(file.bytesAfter) + " bytes now\n";
    }
    return text.empty() ? "nothing to win\n" : text;
}

nlohmann::ordered_json reportCompaction(std::vector<host::CompactedFile> const& files) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    __int64 wonBytes = 0;
    for (host::CompactedFile const& file : files) {
        nlohmann::ordered_json entry{{"file", host::displayName(file.file)},
                                     {"bytesBefore", file.bytesBefore},
                                     {"bytesAfter", file.bytesAfter}};
        if (!file.obstacle.empty())
            entry["obstacle"] = file.obstacle;
        list.push_back(entry);
        wonBytes += bytesWon(file);
    }
    return {{"bytesWon", wonBytes}, {"files", list}};
}

std::vector<host::CompactedFile> runCompaction(Invocation& invocation, CompactArguments& arguments,
                                               yx::CURI const& mainFile) {
    LongWork const work(invocation, "compact");
    host::DiskCompactionOptions options;
    options.trust = invocation.getTrust();
    options.work = work.getOptions();
    options.password = usedPassword(invocation, arguments.passwords);
    host::DurableFiles steps;
    return invocation.getWait().retry([&] {
        return host::DiskCompaction(invocation.getFiles(), steps, mainFile, options).run();
    });
}

ExitStatus compactDisk(Invocation& invocation, CompactArguments& arguments) {
    invocation.setLong();
    yx::CURI const mainFile = host::uriFromArgument(arguments.disk);
    std::vector<host::CompactedFile> const files =
        withPassword(invocation, arguments.disk, arguments.passwords,
                     [&] { return runCompaction(invocation, arguments, mainFile); });
    invocation.getResult().print(formatCompaction(files));
    invocation.getResult().add(reportCompaction(files));
    return ExitStatus::Done;
}

} // namespace

void addCompactCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<CompactArguments>();
    CLI::App& command =
        addCommand(program, run, "compact", "Take the dead space out of the files of a disk",
                   "kelm compact backup.vmdk", [arguments](Invocation& invocation) {
                       return compactDisk(invocation, *arguments);
                   });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
