#include "tools/kelm/new_disk_options.h"

#include "host/disk/disk_record.h"
#include "host/system/key_rounds.h"
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
    addSizeOption(command, "--split", splitBytes,
                  "Split the disk into files of at most this size; one file by default");
    addFlag(command, "--encrypt", encrypt, "Encrypt the disk under a password");
    addRoundsOption(command, rounds);
    addFlag(command, "--on-demand", onDemand,
            "Make the files of a split disk when they are needed; all at once by default");
    addTextOption(command, "--label", label,
                  "A text that the disk is to keep, for 'list' and 'info'");
    addForceOption(command, force);
}

void NewDiskOptions::addCompressedTo(CLI::App& command) {
    addFlag(command, "--compressed", compressed,
            "Compress the disk; by default its grains are stored plain");
}

void NewDiskOptions::addDigestsTo(CLI::App& command) {
    addFlag(command, "--no-digests", noDigests,
            "Make no file of digests, by which 'check' finds every change of the content");
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
    if (isEncrypted(*disk)) {
        request.password = usedPassword(invocation, passwords);
        inheritKeyDerivation(invocation, *disk, request);
    }
}

/// The disks of a chain take one derivation to open, as long as nothing speaks for another one.
void NewDiskOptions::inheritKeyDerivation(Invocation const& invocation, host::SafeDisk& parentDisk,
                                          host::NewDisk& request) const {
    // The parent's salt must not serve two passwords: see `host::deriveKeysOfChain`.
    if (rounds != -1 || !invocation.readParentPassword().isEmpty())
        return;
    host::KeyDerivationSettings const derivation =
        host::getKeyDerivation(*parentDisk.getDisk().getDescriptor());
    if (derivation.rounds >= host::kFewestKeyRounds)
        request.keyDerivation = derivation;
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
    if (!request.password.isEmpty() && !request.keyDerivation)
        request.keyDerivation = host::drawKeyDerivation(chooseRounds(rounds));
    return request;
}

} // namespace kelm::tool
