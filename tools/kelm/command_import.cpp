#include <algorithm>
#include <ctime>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "host/backups/backup_list.h"
#include "host/disk/chain_members.h"
#include "host/disk/disk_record.h"
#include "host/store/file_names.h"
#include "host/system/machine_name.h"
#include "host/system/time_text.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/raw_import.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

struct ImportArguments {
    std::string image;
    std::string disk;
    __int64 sizeBytes = -1;
    int threads = 0;
    bool pad = false;
    bool resume = false;
    NewDiskOptions newDisk;
    PasswordOptions passwords;
};

/// Which image a disk was made of, for its record; "" for a pipe, and for a name that is too long.
std::string nameOfImage(std::string const& image, host::RawSource const& source) {
    if (source.getLength() == -1 || image == "-")
        return "";
    // As stored, a byte takes up to three.
    std::string const name = std::filesystem::absolute(image).lexically_normal().string();
    return name.size() > host::DiskRecord::kMaxTextBytes / 3 ? "" : name;
}

/// How many bytes must come. The writer of a pipe may have failed half-way, and nothing but the
/// count would show it.
host::ImageLength lengthOf(host::RawSource const& source, __int64 sizeBytes, bool mayBeShorter) {
    return source.getLength() == -1 ? host::ImageLength{sizeBytes, mayBeShorter}
                                    : host::ImageLength{};
}

/// Refuses to mix two images in one disk, as far as its record tells them apart.
void verifyResumes(ImportArguments const& arguments, host::RawSource const& source,
                   host::SafeDisk& disk) {
    host::DiskRecord const record(*disk.getDisk().getDescriptor());
    if (record.getState() == host::DiskState::Complete)
        throw UsageError("The disk is complete; there is nothing to resume.");
    std::string const image = nameOfImage(arguments.image, source);
    if (!image.empty() && !record.getSource().empty() && image != record.getSource())
        throw UsageError("The disk was being made of another image: " + record.getSource());
    __int64 const sizeBytes =
        arguments.sizeBytes != -1 ? arguments.sizeBytes : source.getLength() - source.getPosition();
    bool const isKnown = arguments.sizeBytes != -1 || source.getLength() != -1;
    std::optional<__int64> const recorded = record.getImageBytes(disk.getSizeBytes());
    if (isKnown && recorded && sizeBytes != *recorded) {
        throw UsageError("The disk was being made for " + std::to_string(*recorded) +
                         " bytes, not for " + std::to_string(sizeBytes) + ".");
    }
    if (arguments.newDisk.parent.empty())
        return;
    yx::CURI const parent = host::uriFromArgument(arguments.newDisk.parent);
    if (!disk.hasParent() || !host::isSameFile(parent, disk.getDisk().getParentDiskMainURI()))
        throw UsageError("The disk was being made without this parent.");
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
    invocation.allowUnfinished(host::UnfinishedDisks::Itself);
    std::unique_ptr<host::SafeDisk> const disk = openToGoOn(invocation, [&] {
        std::unique_ptr<host::SafeDisk> opened =
            openDisk(invocation, arguments.disk, yx::IIOStream::ReadWrite, arguments.passwords,
                     options.level);
        verifyResumes(arguments, source, *opened);
        return opened;
    });
    __int64 const sizeBytes = host::DiskRecord(*disk->getDisk().getDescriptor())
                                  .getImageBytes(disk->getSizeBytes())
                                  .value_or(disk->getSizeBytes());
    LongWork const work(invocation, "import", arguments.threads);
    host::importRaw(source, *disk, work.getOptions(), lengthOf(source, sizeBytes, arguments.pad),
                    host::PresentContent::Any);
    host::setExactSizeBytes(*disk, std::max(sizeBytes, source.getPosition()));
    disk->markComplete();
    return ExitStatus::Done;
}

void warnOfLongChain(host::SafeDisk& disk) {
    if (!disk.hasParent())
        return;
    auto const count = static_cast<int>(host::listChainMembers(disk).size());
    if (count < host::kLongChain)
        return;
    yx::logWarning(yx::String::fromUTF8(
        "This is disk " + std::to_string(count) + " of its chain, which ends at " +
        std::to_string(host::kMaxDisksOfChain) + ". Begin a new chain with a full disk."));
}

ExitStatus importImage(Invocation& invocation, ImportArguments& arguments) {
    if (arguments.resume)
        return resumeImport(invocation, arguments);
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    host::RawSource source(arguments.image, &invocation.getCancel());
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
    request.source = nameOfImage(arguments.image, source);
    request.host = host::getMachineName();
    NewDiskInProgress disk(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    warnOfLongChain(disk.getDisk());
    LongWork const work(invocation, "import", arguments.threads);
    host::importRaw(source, disk.getDisk(), work.getOptions(),
                    lengthOf(source, request.sizeBytes, arguments.pad));
    host::setExactSizeBytes(disk.getDisk(), std::max(request.sizeBytes, source.getPosition()));
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
    addThreadsOption(command, arguments->threads);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
