#include <algorithm>
#include <memory>

#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "host/transfer/chain_difference.h"
#include "host/transfer/disk_conversion.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/parents_room.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_inheritance.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"
#include "tools/kelm/two_disk_passwords.h"

namespace kelm::tool {

namespace {

struct MergeArguments {
    std::string first;
    std::string last;
    std::string to;
    int threads = 0;
    bool noVerify = false;
    TransferOptions transfer;
    NewDiskOptions newDisk;
    TwoDiskPasswords passwords;
};

/// The links that become one.
struct Links {
    std::unique_ptr<host::SafeDisk> last;
    std::vector<std::unique_ptr<host::SafeDisk>> parents;

    /// From the last to the first.
    std::vector<host::SafeDisk*> merged = {};

    /// Null if the first has none.
    host::SafeDisk* base = nullptr;
};

/// Finds FIRST among LAST and its parents.
void findFirst(Links& links, MergeArguments const& arguments) {
    yx::CURI const first = host::uriFromArgument(arguments.first);
    links.merged = {links.last.get()};
    for (std::unique_ptr<host::SafeDisk> const& parent : links.parents) {
        if (host::isSameFile(links.merged.back()->getDisk().getMainFileURI(), first)) {
            links.base = parent.get();
            return;
        }
        links.merged.push_back(parent.get());
    }
    if (!host::isSameFile(links.merged.back()->getDisk().getMainFileURI(), first))
        throw UsageError(arguments.last + " is no child of " + arguments.first +
                         ", nor one of its children's.");
}

Links openLinks(Invocation& invocation, MergeArguments& arguments) {
    PasswordOptions& passwords = arguments.passwords.ofFirst();
    Links links;
    links.last = openDisk(invocation, arguments.last, yx::IIOStream::ReadOnly, passwords);
    links.parents = openParents(invocation, *links.last, usedPassword(invocation, passwords));
    findFirst(links, arguments);
    return links;
}

void verifyRoom(host::SafeDisk& last, host::GrainSet const& grains,
                host::ParentsRoom::NewDiskPlace const& place, host::CancelFlag const& cancel) {
    host::ParentsRoom room;
    room.addNewDisk(last, grains, place, &cancel);
    room.verify("There is no room for what the links hold.");
}

ExitStatus merge(Invocation& invocation, MergeArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    Links const links = openLinks(invocation, arguments);
    host::SafeDisk& last = *links.last;
    yx::CURI const uri = host::uriFromArgument(arguments.to);
    std::vector<yx::CURI> const sourceFiles =
        listChainFiles(invocation, last, usedPassword(invocation, arguments.passwords.ofFirst()));
    verifyIsNoneOf(sourceFiles, uri);
    if (links.base)
        arguments.newDisk.parent = host::displayName(links.base->getDisk().getMainFileURI());
    host::NewDisk request = arguments.newDisk.makeRequest(
        invocation, last.getSizeBytes(),
        links.base ? arguments.passwords.ofFirst() : arguments.passwords.ofSecond());
    request.isToBeFilled = true;
    inheritRecord(*last.getDisk().getDescriptor(), request);
    bool const keepsExactSize = host::keepsExactSize(last);
    __int64 const exactSizeBytes = host::getExactSizeBytes(last);
    if (keepsExactSize)
        request.imageBytes = exactSizeBytes;
    host::GrainSet const grains =
        host::findGrainsOfLinks(last, links.merged, links.base, &invocation.getCancel());
    verifyRoom(last, grains, {uri, request.compressed}, invocation.getCancel());
    NewDiskInProgress to(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    // A record that was not decoded has no content that is known, and perhaps none.
    bool const hasDigests = !arguments.newDisk.noDigests && !arguments.noVerify;
    LongWork const work(invocation, "merge", arguments.threads);
    host::ConversionDigests digests;
    if (hasDigests)
        digests =
            to.addDigestsOfCopy(last, usedPassword(invocation, arguments.passwords.ofFirst()));
    host::convertGrainsOf(last, to.getDisk(), grains, work.getOptions(),
                          arguments.noVerify ? host::RecordCheck::None : host::RecordCheck::Decode,
                          digests);
    invocation.tellSkipped(exactSizeBytes);
    if (keepsExactSize)
        host::setExactSizeBytes(to.getDisk(), exactSizeBytes);
    to.finishDigests(keepsExactSize ? exactSizeBytes : to.getDisk().getSizeBytes(),
                     work.getQuietOptions());
    to.finish();
    return ExitStatus::Done;
}

} // namespace

void addMergeCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<MergeArguments>();
    CLI::App& command = addCommand(
        program, run, "merge",
        "Make one disk that holds what several links of a chain hold, over the parent of the first",
        "kelm merge monday.vmdk tuesday.vmdk week.vmdk --compressed",
        [arguments](Invocation& invocation) { return merge(invocation, *arguments); });
    addFileArgument(command, "FIRST", arguments->first, "The main file of the oldest of the links");
    addFileArgument(command, "LAST", arguments->last, "The main file of the newest of them");
    addFileArgument(command, "TO", arguments->to,
                    "The main file of the new disk, which reads as LAST");
    arguments->newDisk.addCompressedTo(command);
    arguments->newDisk.addDigestsTo(command);
    arguments->newDisk.addCommonTo(command);
    addFlag(command, "--no-verify", arguments->noVerify,
            "Copy compressed grains without decoding them first, and make no digests");
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command);
}

} // namespace kelm::tool
