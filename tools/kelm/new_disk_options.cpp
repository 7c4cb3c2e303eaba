#include "tools/kelm/new_disk_options.h"

#include "host/disk/disk_record.h"
#include "host/transfer/exact_size.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

constexpr int kMaxLevel = 9;

} // namespace

void NewDiskOptions::addCommonTo(CLI::App& command) {
    addNumberOption(command, "--level", level, 0, kMaxLevel,
                    "Compression level: 0 stores, 1 (default) is fastest, 6 takes about 6 times as "
                    "long and saves 8 to 17 %, 9 takes 18 times as long and saves 9 to 19 %");
    addSizeOption(command, "--split", splitBytes, "Split the disk into files of at most this size");
    addFlag(command, "--encrypt", encrypt, "Encrypt the disk under a password");
    addFlag(command, "--on-demand", onDemand,
            "Make the files of a split disk when they are needed");
    addTextOption(command, "--label", label,
                  "A text that the disk is to keep, for 'list' and 'info'");
    addForceOption(command, force);
}

void NewDiskOptions::addCompressedTo(CLI::App& command) {
    addFlag(command, "--compressed", compressed, "Compress the disk");
}

void NewDiskOptions::addParentTo(CLI::App& command) {
    addFileOption(command, "--parent", parent,
                  "Make a child of this disk: only differences are stored", false);
}

void NewDiskOptions::inheritFromParent(Invocation& invocation, PasswordOptions& passwords,
                                       host::NewDisk& request) const {
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, parent, yx::IIOStream::ReadOnly, passwords);
    request.parent = disk->getDisk().getMainFileURI();
    if (request.sizeBytes == -1)
        request.sizeBytes = host::getExactSizeBytes(*disk);
    // One password opens a whole chain.
    if (isEncrypted(*disk))
        request.password = usedPassword(invocation, passwords);
}

host::NewDisk NewDiskOptions::makeRequest(Invocation& invocation, __int64 sizeBytes,
                                          PasswordOptions& passwords) const {
    host::NewDisk request;
    request.sizeBytes = sizeBytes;
    request.compressed = compressed;
    request.compressionLevel = level;
    request.fileSizeLimitBytes = splitBytes;
    request.createExtentFilesOnDemand = onDemand;
    request.trust = invocation.getTrust();
    // As stored, a byte takes up to three.
    if (label.size() > host::DiskRecord::kMaxTextBytes / 3)
        throw UsageError("The label is too long.");
    request.label = label;
    if (!parent.empty())
        inheritFromParent(invocation, passwords, request);
    if (request.sizeBytes == -1)
        throw UsageError("The size of the disk is not known; give --size.");
    if (encrypt && request.password.isEmpty())
        request.password =
            passwords.readOrPrompt("New password", true, invocation.getCancel()).get();
    return request;
}

} // namespace kelm::tool
