#include <algorithm>
#include <memory>

#include "host/disk/disk_record.h"
#include "host/store/file_names.h"
#include "host/transfer/disk_conversion.h"
#include "host/transfer/exact_size.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"
#include "tools/kelm/two_disk_passwords.h"

namespace kelm::tool {

namespace {

struct ConvertArguments {
    std::string from;
    std::string to;
    __int64 sizeBytes = -1;
    int threads = 0;
    bool noVerify = false;
    bool unfinished = false;
    NewDiskOptions newDisk;
    TwoDiskPasswords passwords;
};

/// The image is the same one, and so are the facts about it.
void inheritRecord(host::SafeDisk& from, host::NewDisk& request) {
    host::DiskRecord const record(*from.getDisk().getDescriptor());
    request.time = record.getTime();
    request.source = record.getSource();
    request.host = record.getHost();
    if (request.label.empty())
        request.label = record.getLabel();
}

ExitStatus convert(Invocation& invocation, ConvertArguments& arguments) {
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    std::unique_ptr<host::SafeDisk> const from = openDisk(
        invocation, arguments.from, yx::IIOStream::ReadOnly, arguments.passwords.ofFirst());
    yx::CURI const uri = host::uriFromArgument(arguments.to);
    std::vector<yx::CURI> const sourceFiles =
        listChainFiles(invocation, *from, usedPassword(invocation, arguments.passwords.ofFirst()));
    verifyIsNoneOf(sourceFiles, uri);
    bool const keepsExactSize = host::keepsExactSize(*from);
    __int64 const exactSizeBytes = host::getExactSizeBytes(*from);
    if (arguments.sizeBytes == -1)
        arguments.sizeBytes = exactSizeBytes;
    if (arguments.sizeBytes < exactSizeBytes)
        throw UsageError("A disk can be made larger, not smaller.");
    host::NewDisk request = arguments.newDisk.makeRequest(
        invocation, std::max(arguments.sizeBytes, from->getSizeBytes()),
        arguments.passwords.ofSecond());
    request.isToBeFilled = true;
    inheritRecord(*from, request);
    if (keepsExactSize)
        request.imageBytes = arguments.sizeBytes;
    NewDiskInProgress to(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    LongWork const work(invocation, "convert", arguments.threads);
    host::convertDisk(*from, to.getDisk(), work.getOptions(),
                      arguments.noVerify ? host::RecordCheck::None : host::RecordCheck::Decode);
    if (keepsExactSize)
        host::setExactSizeBytes(to.getDisk(), arguments.sizeBytes);
    to.finish();
    return ExitStatus::Done;
}

} // namespace

void addConvertCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<ConvertArguments>();
    CLI::App& command =
        addCommand(program, run, "convert", "Copy a disk, with its parents, to one of another kind",
                   "kelm convert disk.vmdk archive.vmdk --compressed --split 2G",
                   [arguments](Invocation& invocation) { return convert(invocation, *arguments); });
    addFileArgument(command, "FROM", arguments->from, "The main file of the disk");
    addFileArgument(command, "TO", arguments->to, "The main file of the new disk");
    addSizeOption(command, "--size", arguments->sizeBytes,
                  "Size of the new disk, if it is to be larger");
    arguments->newDisk.addCompressedTo(command);
    arguments->newDisk.addCommonTo(command);
    addFlag(command, "--no-verify", arguments->noVerify,
            "Copy compressed grains without decoding them first");
    addUnfinishedOption(command, arguments->unfinished);
    addThreadsOption(command, arguments->threads);
    arguments->passwords.addTo(command);
}

} // namespace kelm::tool
