#include <memory>
#include <optional>
#include <string>

#include "host/content/disk_bytes.h"
#include "host/content/file_system_probe.h"
#include "host/content/partition_table.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "host/system/size_text.h"
#include "host/transfer/exact_size.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

using FilesJson = nlohmann::ordered_json;

struct FilesArguments {
    std::string disk;
    bool unfinished = false;
    PasswordOptions passwords;
};

void addUnlessEmpty(FilesJson& report, char const* name, std::string const& value) {
    if (!value.empty())
        report[name] = value;
}

std::string labelAndUUID(std::string const& label, std::string const& uuid) {
    std::string text;
    if (!label.empty())
        text += ", label " + host::printable(label);
    if (!uuid.empty())
        text += ", UUID " + host::printable(uuid);
    return text;
}

FilesJson reportFileSystem(std::optional<host::FileSystem> const& found) {
    FilesJson report = FilesJson::object();
    if (!found)
        return report;
    report["type"] = found->type;
    addUnlessEmpty(report, "usage", found->usage);
    addUnlessEmpty(report, "label", found->label);
    addUnlessEmpty(report, "uuid", found->uuid);
    return report;
}

std::string describeFileSystem(std::optional<host::FileSystem> const& found) {
    if (!found)
        return host::canProbeFileSystems() ? "holds nothing that is known"
                                           : "holds what is not told";
    if (found->type.empty())
        return "holds what may be more than one thing";
    return "holds " + host::printable(found->type) + labelAndUUID(found->label, found->uuid);
}

FilesJson reportPartition(host::Partition const& partition) {
    FilesJson report{{"number", partition.number},
                     {"startBytes", partition.startBytes},
                     {"sizeBytes", partition.sizeBytes},
                     {"type", partition.type}};
    addUnlessEmpty(report, "typeName", partition.typeName);
    addUnlessEmpty(report, "label", partition.label);
    addUnlessEmpty(report, "uuid", partition.uuid);
    return report;
}

std::string describePartition(host::Partition const& partition) {
    return "partition " + std::to_string(partition.number) + ": starts at byte " +
           std::to_string(partition.startBytes) + ", " + host::formatSize(partition.sizeBytes) +
           ", " + (partition.typeName.empty() ? "type " + partition.type : partition.typeName) +
           labelAndUUID(partition.label, partition.uuid) + "\n";
}

/// Nothing where this build cannot tell.
std::optional<host::FileSystem> probe(Invocation const& invocation, host::ByteSource& bytes,
                                      __int64 startBytes, __int64 sizeBytes) {
    if (!host::canProbeFileSystems())
        return std::nullopt;
    return host::probeFileSystem(bytes, startBytes, sizeBytes, &invocation.getCancel());
}

/// Adds the partitions, with what they hold, to the report, and returns the lines for people.
std::string describeTable(Invocation const& invocation, host::PartitionTable const& table,
                          host::ByteSource& bytes, FilesJson& report) {
    bool const isGPT = table.kind == host::PartitionTable::Kind::GPT;
    report["table"] = {{"type", isGPT ? "gpt" : "dos"},
                       {"uuid", table.uuid},
                       {"sectorSizeBytes", table.sectorSizeBytes}};
    std::string text =
        std::string("partition table: ") + (isGPT ? "GPT" : "MBR") + ", UUID " + table.uuid + "\n";
    FilesJson partitions = FilesJson::array();
    for (host::Partition const& partition : table.partitions) {
        FilesJson one = reportPartition(partition);
        text += describePartition(partition);
        if (!partition.isExtended) {
            std::optional<host::FileSystem> const found =
                probe(invocation, bytes, partition.startBytes, partition.sizeBytes);
            if (found)
                one["fileSystem"] = reportFileSystem(found);
            text += "    " + describeFileSystem(found) + "\n";
        }
        partitions.push_back(one);
    }
    report["partitions"] = partitions;
    return text;
}

ExitStatus listFileSystems(Invocation& invocation, FilesArguments& arguments) {
    if (!host::canProbeFileSystems()) {
        yx::logWarning(
            "This build of kelm cannot tell file systems: it was made without libblkid.");
    }
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    __int64 const sizeBytes = host::getExactSizeBytes(*disk);
    host::DiskBytes bytes(*disk, sizeBytes);
    host::PartitionTable const table = host::readPartitionTable(bytes);
    for (std::string const& problem : table.problems)
        yx::logWarning(yx::String::fromUTF8(problem));
    FilesJson report{{"file", host::displayName(disk->getDisk().getMainFileURI())},
                     {"sizeBytes", sizeBytes},
                     {"partitions", FilesJson::array()}};
    std::string text;
    if (table.kind != host::PartitionTable::Kind::None) {
        text = describeTable(invocation, table, bytes, report);
    } else {
        std::optional<host::FileSystem> const found = probe(invocation, bytes, 0, sizeBytes);
        if (found)
            report["fileSystem"] = reportFileSystem(found);
        text = "no partitions\n    " + describeFileSystem(found) + "\n";
    }
    invocation.getResult().add(report);
    invocation.getResult().print(text);
    return ExitStatus::Done;
}

} // namespace

void addFilesCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<FilesArguments>();
    CLI::App& command =
        addCommand(program, run, "files", "List the partitions and file systems on a disk",
                   "kelm files backup.vmdk", [arguments](Invocation& invocation) {
                       return listFileSystems(invocation, *arguments);
                   });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    addUnfinishedOption(command, arguments->unfinished);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
