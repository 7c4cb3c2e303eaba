#include <algorithm>
#include <memory>

#include "host/store/file_names.h"
#include "host/transfer/chain_difference.h"
#include "host/transfer/disk_conversion.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/whole_reading.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_inheritance.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"
#include "tools/kelm/salvaging.h"
#include "tools/kelm/transfer_options.h"
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
    TransferOptions transfer;
    SalvageFlags salvage;
    NewDiskOptions newDisk;
    TwoDiskPasswords passwords;
};

/// What is known of the disk that is copied.
struct SourceFacts {
    yx::P<CVMDKDescriptor> descriptor;
    __int64 diskSizeBytes;
    __int64 exactSizeBytes;
    bool keepsExactSize;
};

void copyGrains(Invocation& invocation, ConvertArguments& arguments, host::SafeDisk& from,
                host::SafeDisk& to, host::ConversionDigests const& digests) {
    LongWork const work(invocation, "convert", arguments.threads);
    host::RecordCheck const check =
        arguments.noVerify ? host::RecordCheck::None : host::RecordCheck::Decode;
    if (!to.hasParent()) {
        host::convertDisk(from, to, work.getOptions(), check, digests);
        return;
    }
    std::unique_ptr<host::SafeDisk> const parent =
        openDisk(invocation, arguments.newDisk.parent, yx::IIOStream::ReadOnly,
                 arguments.passwords.ofSecond());
    host::beginWholeReading(from, work.getOptions().cancel);
    host::beginWholeReading(*parent, work.getOptions().cancel);
    host::GrainSet const differences = host::findDifferences(from, *parent, work.getOptions());
    host::convertGrainsOf(from, to, differences, work.getOptions(), check, digests);
}

/// Makes room in `arguments.sizeBytes` for the exact size of the new disk.
host::NewDisk makeRequest(Invocation& invocation, ConvertArguments& arguments,
                          SourceFacts const& from) {
    if (arguments.sizeBytes == -1)
        arguments.sizeBytes = from.exactSizeBytes;
    if (arguments.sizeBytes < from.exactSizeBytes)
        throw UsageError("A disk can be made larger, not smaller.");
    host::NewDisk request =
        arguments.newDisk.makeRequest(invocation, std::max(arguments.sizeBytes, from.diskSizeBytes),
                                      arguments.passwords.ofSecond());
    request.isToBeFilled = true;
    inheritRecord(*from.descriptor, request);
    if (from.keepsExactSize)
        request.imageBytes = arguments.sizeBytes;
    return request;
}

ExitStatus salvageDisk(Invocation& invocation, ConvertArguments& arguments) {
    std::unique_ptr<host::SalvagedDisk> const from =
        openToSalvage(invocation, arguments.from, arguments.salvage, arguments.passwords.ofFirst());
    yx::CURI const uri = host::uriFromArgument(arguments.to);
    std::vector<yx::CURI> const sourceFiles = from->listFiles();
    verifyIsNoneOf(sourceFiles, uri);
    __int64 const imageBytes = host::getSalvagedSizeBytes(*from, &invocation.getCancel());
    SourceFacts const facts{from->getDescriptor(), from->getSizeBytes(), imageBytes,
                            imageBytes != from->getSizeBytes()};
    host::NewDisk const request = makeRequest(invocation, arguments, facts);
    NewDiskInProgress to(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    LongWork work(invocation, "convert", arguments.threads);
    host::convertSalvaged(*from, to.getDisk(), imageBytes, work.getOptions());
    to.finish();
    work.hideBar();
    return reportDamage(invocation, from->getDamage(), false);
}

ExitStatus convert(Invocation& invocation, ConvertArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    if (arguments.salvage.takeEffect() && !arguments.newDisk.parent.empty())
        throw UsageError("Give --salvage or --parent, not both.");
    if (arguments.salvage.takeEffect())
        return salvageDisk(invocation, arguments);
    std::unique_ptr<host::SafeDisk> const from = openDisk(
        invocation, arguments.from, yx::IIOStream::ReadOnly, arguments.passwords.ofFirst());
    yx::CURI const uri = host::uriFromArgument(arguments.to);
    std::vector<yx::CURI> const sourceFiles =
        listChainFiles(invocation, *from, usedPassword(invocation, arguments.passwords.ofFirst()));
    verifyIsNoneOf(sourceFiles, uri);
    SourceFacts const facts{from->getDisk().getDescriptor(), from->getSizeBytes(),
                            host::getExactSizeBytes(*from), host::keepsExactSize(*from)};
    host::NewDisk const request = makeRequest(invocation, arguments, facts);
    NewDiskInProgress to(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    // A record that was not decoded has no content that is known, and perhaps none.
    bool const hasDigests = !arguments.newDisk.noDigests && !arguments.noVerify;
    host::ConversionDigests digests;
    if (hasDigests)
        digests =
            to.addDigestsOfCopy(*from, usedPassword(invocation, arguments.passwords.ofFirst()));
    copyGrains(invocation, arguments, *from, to.getDisk(), digests);
    invocation.tellSkipped(facts.exactSizeBytes);
    LongWork const work(invocation, "convert", arguments.threads);
    if (facts.keepsExactSize)
        host::setExactSizeBytes(to.getDisk(), arguments.sizeBytes);
    to.finishDigests(facts.keepsExactSize ? arguments.sizeBytes : to.getDisk().getSizeBytes(),
                     work.getQuietOptions());
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
    arguments->newDisk.addDigestsTo(command);
    arguments->newDisk.addParentTo(command);
    addFlag(command, "--no-verify", arguments->noVerify,
            "Copy compressed grains without decoding them first, and make no digests");
    addUnfinishedOption(command, arguments->unfinished);
    arguments->salvage.addTo(command);
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command);
}

} // namespace kelm::tool
