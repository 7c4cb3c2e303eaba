#include <algorithm>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/backups/backup_list.h"
#include "host/content/free_space.h"
#include "host/disk/chain_members.h"
#include "host/store/file_names.h"
#include "host/system/machine_name.h"
#include "host/system/name_text.h"
#include "host/system/time_text.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/raw_import.h"
#include "host/transfer/resumed_import.h"
#include "tools/kelm/changed_list.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/local_file.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"
#include "yx/log.h"
#include "yx/mt_rand.h"

namespace kelm::tool {

namespace {

struct ImportArguments {
    std::string image;
    std::string disk;
    __int64 sizeBytes = -1;
    int threads = 0;
    bool pad = false;
    bool resume = false;
    bool imageDigest = false;
    bool excludeFree = false;
    std::string changed;
    TransferOptions transfer;
    double verifyChangedPercent = 0;
    NewDiskOptions newDisk;
    PasswordOptions passwords;
};

/// Bytes that nobody uses, as long as an import lasts.
class FreeExclusion {
public:
    /// With "--exclude-free", lets the source read them as zeros.
    FreeExclusion(ImportArguments const& arguments, host::RawSource& source) : m_source(source) {
        if (!arguments.excludeFree)
            return;
        if (source.getLength() == -1 || arguments.image == "-") {
            throw UsageError("--exclude-free needs an image that can be read at any place: a file "
                             "or a block device that is named.");
        }
        m_found = host::findFreeSpace(arguments.image);
        for (std::string const& refusal : m_found->refusals)
            yx::logWarning(yx::String::fromUTF8(refusal));
        if (m_found->space)
            source.excludeFree(*m_found->space);
    }

    void tell(Invocation& invocation) const {
        if (m_found)
            invocation.getResult().add({{"freeBytes", m_source.getExcludedBytes()}});
    }

private:
    host::RawSource& m_source;
    std::optional<host::FoundFreeSpace> m_found;
};

/// How many bytes must come. The writer of a pipe may have failed half-way, and nothing but the
/// count would show it.
host::ImageLength lengthOf(host::RawSource const& source, __int64 sizeBytes, bool mayBeShorter) {
    return source.getLength() == -1 ? host::ImageLength{sizeBytes, mayBeShorter}
                                    : host::ImageLength{};
}

/// Refuses to mix two images in one disk.
void verifyResumes(ImportArguments const& arguments, host::RawSource const& source,
                   host::SafeDisk& disk) {
    host::ResumedImport wanted{arguments.image, arguments.sizeBytes};
    if (!arguments.newDisk.parent.empty())
        wanted.parent = host::uriFromArgument(arguments.newDisk.parent);
    try {
        wanted.verifyIsOf(disk, source);
    } catch (yx::CInvalidArgError const& error) {
        throw UsageError(error.what());
    }
}

/// Goes on where an import was killed. The disk stays, unfinished, if this fails too.
ExitStatus resumeImport(Invocation& invocation, ImportArguments& arguments) {
    NewDiskOptions const& options = arguments.newDisk;
    if (options.compressed || options.encrypt || options.onDemand || options.splitBytes != -1 ||
        options.force) {
        throw UsageError("A disk is resumed as it is; leave out --compressed, --encrypt, "
                         "--on-demand, --split and --force.");
    }
    host::RawSource source(arguments.image, &invocation.getCancel());
    FreeExclusion const exclusion(arguments, source);
    invocation.allowUnfinished(host::UnfinishedDisks::Itself);
    std::unique_ptr<host::SafeDisk> const disk = openToGoOn(invocation, [&] {
        std::unique_ptr<host::SafeDisk> opened =
            openDisk(invocation, arguments.disk, yx::IIOStream::ReadWrite, arguments.passwords,
                     options.level);
        verifyResumes(arguments, source, *opened);
        return opened;
    });
    __int64 const sizeBytes = host::getRecordedImageBytes(*disk);
    // What the killed import has made of them is of no use.
    std::optional<host::DigestMaking> digests;
    if (!options.noDigests)
        digests.emplace(invocation.getFiles(), *disk);
    if (arguments.imageDigest)
        digests->addImage();
    LongWork const work(invocation, "import", arguments.threads);
    host::importRaw(source, *disk, work.getOptions(), lengthOf(source, sizeBytes, arguments.pad),
                    host::PresentContent::Any, digests ? &*digests : nullptr);
    __int64 const exactSizeBytes = std::max(sizeBytes, source.getPosition());
    host::setExactSizeBytes(*disk, exactSizeBytes);
    invocation.tellSkipped(exactSizeBytes);
    exclusion.tell(invocation);
    if (digests)
        digests->finish(exactSizeBytes, work.getQuietOptions());
    disk->markComplete();
    return ExitStatus::Done;
}

/// Refuses what a list of changes does not go with.
void verifyTakesChanges(ImportArguments const& arguments, host::RawSource const& source) {
    if (arguments.changed.empty() && arguments.verifyChangedPercent > 0)
        throw UsageError("--verify-changed goes with --changed.");
    if (arguments.changed.empty())
        return;
    if (arguments.newDisk.parent.empty())
        throw UsageError("--changed goes with --parent, and not with --resume.");
    if (source.getLength() == -1) {
        throw UsageError("--changed needs an image that can be read at any place: a file or a "
                         "block device.");
    }
    if (arguments.changed == "-" && arguments.image == "-")
        throw UsageError("Standard input cannot be both the image and the list of changes.");
}

/// The grains that are to be read; nothing for all.
std::optional<host::ChangedGrains> readChanges(Invocation& invocation,
                                               ImportArguments const& arguments,
                                               host::RawSource const& source, host::SafeDisk& disk,
                                               yx::String const& password) {
    if (arguments.changed.empty())
        return std::nullopt;
    std::vector<host::ImageRange> ranges =
        readChangedList(arguments.changed, source.getLength(), invocation.getCancel());
    // What the parent does not have, no list says.
    __int64 const parentBytes =
        host::getExactSizeBytes(*openParents(invocation, disk, password).front());
    ranges.push_back({std::min(parentBytes, source.getLength()), source.getLength()});
    host::ChangedGrains changes(ranges, disk.getGrainSizeBytes());
    if (arguments.verifyChangedPercent > 0)
        changes.verifyOthers(
            host::GrainSample(arguments.verifyChangedPercent, yx::CMTRand::drawGlobal32()));
    return changes;
}

void warnOfLongChain(host::SafeDisk& disk) {
    if (!disk.hasParent())
        return;
    auto const count = static_cast<int>(host::listChainMembers(disk).size());
    if (count < host::kLongChain)
        return;
    yx::logWarning(yx::String::fromUTF8(
        "This is disk " + std::to_string(count) + " of its chain, which ends at " +
        std::to_string(host::kMaxDisksOfChain) +
        ". Take links out with "
        "'kelm prune' or 'kelm drop', or begin a new chain with a full disk."));
}

void explainComparison(Invocation& invocation, host::SafeDisk& disk,
                       host::ChainDigests const* parents) {
    CommandResult const& output = invocation.getResult();
    if (!disk.hasParent()) {
        output.explain("without a parent: all that is no zeros is stored");
        return;
    }
    output.explain("the parent is " + host::displayName(disk.getDisk().getParentDiskMainURI()));
    output.explain(parents ? "the image is compared with the digests of the parents, whose data is "
                             "not read"
                           : "the image is compared with the data of the parents, since not all of "
                             "them have digests that are up to date");
}

ExitStatus importImage(Invocation& invocation, ImportArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    verifyIsOnThisMachine("The image", arguments.image);
    if (arguments.imageDigest && arguments.newDisk.noDigests)
        throw UsageError("The digest of the image is one of the digests; leave out --no-digests.");
    if (arguments.resume && !arguments.changed.empty())
        throw UsageError("--changed goes with --parent, and not with --resume.");
    if (arguments.resume)
        return resumeImport(invocation, arguments);
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    host::RawSource source(arguments.image, &invocation.getCancel());
    verifyTakesChanges(arguments, source);
    FreeExclusion const exclusion(arguments, source);
    std::vector<yx::CURI> sourceFiles;
    if (std::optional<yx::CURI> const file = tryNameRegularFile(arguments.image))
        sourceFiles.push_back(*file);
    if (sourceFiles == std::vector{uri})
        throw UsageError("The image and the disk are the same file.");
    if (arguments.sizeBytes == -1)
        arguments.sizeBytes = source.getLength() - source.getPosition();
    host::NewDisk request =
        arguments.newDisk.makeRequest(invocation, arguments.sizeBytes, arguments.passwords);
    request.isToBeFilled = true;
    request.imageBytes = request.sizeBytes;
    request.time = host::formatTime(std::time(nullptr));
    request.source = host::nameOfImage(arguments.image, source);
    request.host = host::getMachineName();
    NewDiskInProgress disk(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    warnOfLongChain(disk.getDisk());
    host::DigestMaking* const digests = arguments.newDisk.noDigests ? nullptr : &disk.addDigests();
    if (arguments.imageDigest)
        digests->addImage();
    std::unique_ptr<host::ChainDigests> const parents =
        host::ChainDigests::open(invocation.getFiles(), disk.getDisk(), request.password);
    explainComparison(invocation, disk.getDisk(), parents.get());
    std::optional<host::ChangedGrains> const changes =
        readChanges(invocation, arguments, source, disk.getDisk(), request.password);
    LongWork const work(invocation, "import", arguments.threads);
    host::importRaw(source, disk.getDisk(), work.getOptions(),
                    lengthOf(source, request.sizeBytes, arguments.pad),
                    host::PresentContent::OfParent, digests, parents.get(),
                    changes ? &*changes : nullptr);
    __int64 const exactSizeBytes = std::max(request.sizeBytes, source.getPosition());
    host::setExactSizeBytes(disk.getDisk(), exactSizeBytes);
    invocation.tellSkipped(exactSizeBytes);
    exclusion.tell(invocation);
    disk.finishDigests(exactSizeBytes, work.getQuietOptions());
    disk.finish();
    return ExitStatus::Done;
}

} // namespace

void addImportCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<ImportArguments>();
    CLI::App& command = addCommand(
        program, run, "import", "Make a disk of a raw image",
        "kelm import /dev/sdb backup.vmdk --compressed --encrypt\n"
        "  zstdcat sdb.img.zst | kelm import - backup.vmdk --size 40G",
        [arguments](Invocation& invocation) { return importImage(invocation, *arguments); });
    addFileArgument(command, "RAW", arguments->image,
                    "The image: a file, a block device, or '-' for standard input");
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the new disk");
    addSizeOption(command, "--size", arguments->sizeBytes,
                  "Size of the disk; that of the image or the parent by default");
    arguments->newDisk.addCompressedTo(command);
    arguments->newDisk.addCommonTo(command);
    arguments->newDisk.addParentTo(command);
    addFlag(command, "--pad", arguments->pad,
            "Accept standard input, or a pipe, that ends before the size of the disk");
    addFlag(command, "--resume", arguments->resume,
            "Go on with a disk whose import was killed: what it holds already stays");
    arguments->newDisk.addDigestsTo(command);
    addFlag(command, "--image-digest", arguments->imageDigest,
            "Keep the SHA-256 of the image among the digests, for 'digest --print'");
    addFlag(command, "--exclude-free", arguments->excludeFree,
            "Leave out what ext2, ext3 and ext4 on the image say is free; it reads as zeros");
    addFileOption(command, "--changed", arguments->changed,
                  "Read only the ranges of the image that this list names, or standard input for "
                  "'-'; the rest is as the parent",
                  false);
    addPercentOption(command, "--verify-changed", arguments->verifyChangedPercent,
                     "With --changed, read a random part of the rest, and fail if it has changed");
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
