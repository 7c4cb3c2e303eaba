#include <memory>

#include <CLI/CLI.hpp>

#include "host/digest/disk_digests.h"
#include "host/disk/digest_file_name.h"
#include "host/system/name_text.h"
#include "host/transfer/digest_making.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/whole_reading.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"

namespace kelm::tool {

namespace {

struct DigestArguments {
    std::string disk;
    int threads = 0;
    bool print = false;
    bool imageDigest = false;
    TransferOptions transfer;
    bool force = false;
    PasswordOptions passwords;
};

/// The digest of the image that the digest file has, if it is to be believed.
std::optional<host::Digest> findImageDigest(Invocation& invocation, host::SafeDisk& disk,
                                            __int64 exactSizeBytes) {
    host::DiskDigests const digests = host::DiskDigests::open(invocation.getFiles(), disk);
    if (!digests.areUpToDate() || digests.file->getHeader().imageSizeBytes != exactSizeBytes)
        return std::nullopt;
    return digests.file->getHeader().imageDigest;
}

ExitStatus printImageDigest(Invocation& invocation, host::SafeDisk& disk,
                            DigestArguments const& arguments) {
    __int64 const exactSizeBytes = host::getExactSizeBytes(disk);
    std::optional<host::Digest> digest = findImageDigest(invocation, disk, exactSizeBytes);
    if (!digest) {
        LongWork const work(invocation, "digest", arguments.threads);
        host::beginWholeReading(disk, work.getOptions().cancel);
        host::ImageHasher image;
        image.addFromDisk(disk, exactSizeBytes, work.getOptions());
        digest = image.finish();
    }
    std::string const text = host::formatImageDigest(*digest);
    invocation.getResult().print(text);
    invocation.getResult().add({{"imageDigest", text.substr(0, text.find(' '))}});
    return ExitStatus::Done;
}

/// Digests that were made of sound content are not replaced by those of what may be damaged since.
void verifyHasNone(Invocation& invocation, host::SafeDisk& disk) {
    if (host::DiskDigests::open(invocation.getFiles(), disk).areUpToDate()) {
        throw UsageError("The disk has digests that are up to date. Compare it with them by "
                         "'kelm check', or make them anew with --force.");
    }
}

ExitStatus digest(Invocation& invocation, DigestArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    if (arguments.print && (arguments.imageDigest || arguments.force))
        throw UsageError("--print makes no digests; leave out --image-digest and --force.");
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    if (arguments.print)
        return printImageDigest(invocation, *disk, arguments);
    if (!arguments.force)
        verifyHasNone(invocation, *disk);
    LongWork const work(invocation, "digest", arguments.threads);
    host::DigestMaking digests(invocation.getFiles(), *disk);
    if (arguments.imageDigest) {
        host::beginWholeReading(*disk, work.getOptions().cancel);
        digests.addImage();
    }
    digests.finish(host::getExactSizeBytes(*disk), work.getOptions());
    invocation.getResult().add(
        {{"digestFile", host::displayName(host::digestFileOf(disk->getDisk().getMainFileURI()))}});
    return ExitStatus::Done;
}

} // namespace

void addDigestCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<DigestArguments>();
    CLI::App& command =
        addCommand(program, run, "digest", "Make the digests of a disk, or print that of its image",
                   "kelm digest backup.vmdk --print\n"
                   "  kelm export backup.vmdk - | sha256sum",
                   [arguments](Invocation& invocation) { return digest(invocation, *arguments); });
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    addFlag(command, "--print", arguments->print,
            "Print the SHA-256 of the image as sha256sum does, and make nothing");
    addFlag(command, "--image-digest", arguments->imageDigest,
            "Keep the SHA-256 of the image among the digests, for '--print'");
    addFlag(command, "--force", arguments->force,
            "Make the digests anew even if there are some that are up to date");
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
