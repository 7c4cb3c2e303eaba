#include <algorithm>
#include <memory>

#include "host/store/file_names.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/raw_import.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct ImportArguments {
    std::string image;
    std::string disk;
    __int64 sizeBytes = -1;
    int threads = 0;
    bool pad = false;
    NewDiskOptions newDisk;
    PasswordOptions passwords;
};

ExitStatus importImage(Invocation& invocation, ImportArguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    host::RawSource source(arguments.image, &invocation.getCancel());
    std::vector<yx::CURI> sourceFiles;
    if (std::optional<yx::CURI> const file = tryNameRegularFile(arguments.image))
        sourceFiles.push_back(*file);
    if (sourceFiles == std::vector{uri})
        throw UsageError("The image and the disk are the same file.");
    if (arguments.sizeBytes == -1)
        arguments.sizeBytes = source.getLength() - source.getPosition();
    host::NewDisk const request =
        arguments.newDisk.makeRequest(invocation, arguments.sizeBytes, arguments.passwords);
    NewDiskInProgress disk(invocation, uri, request, arguments.newDisk.force, sourceFiles);
    LongWork const work(invocation, "import", arguments.threads);
    // The writer of a pipe may have failed half-way, and nothing but the count would show it.
    bool const isPipe = source.getLength() == -1;
    host::ImageLength const length =
        isPipe ? host::ImageLength{request.sizeBytes, arguments.pad} : host::ImageLength{};
    host::importRaw(source, disk.getDisk(), work.getOptions(), length);
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
    addThreadsOption(command, arguments->threads);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
