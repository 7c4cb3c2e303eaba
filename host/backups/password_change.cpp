#include "host/backups/password_change.h"

#include <algorithm>
#include <optional>

#include "host/backups/disk_claims.h"
#include "host/backups/key_rewrapping.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/disk_key.h"
#include "host/disk/password_errors.h"
#include "host/disk/safe_disk.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

std::optional<DiskKey> tryUnwrap(DescriptorFile const& file, yx::String const& password) {
    if (password.isEmpty())
        return std::nullopt;
    try {
        return unwrapDiskKey(file.parse(), file.mainFile, password);
    } catch (yx::CError const& error) {
        if (!isPasswordWrong(error))
            throw;
        return std::nullopt;
    }
}

/// What a disk's descriptor is to be, in turn.
struct DiskRewrapping {
    DescriptorFile file;
    std::vector<DescriptorArea> states;
};

/// The descriptor as the file has it, be the name in it right or not.
DescriptorFile asStored(yx::IFileSystem* fileSystem, DescriptorFile const& file) {
    DescriptorFile stored = file;
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, file.mainFile, yx::IIOStream::ReadOnly);
    stream->seek(file.positionBytes);
    stream->read(stored.area.data(), static_cast<int>(stored.area.size()));
    return stored;
}

std::vector<DescriptorArea> planTextRewrapping(DescriptorFile const& file,
                                               CVMDKDescriptor& rewrapped) {
    rewrapped.setEncodingUTF8();
    if (getChecksumState(file.parse(), file.mainFile) == ChecksumState::Valid)
        updateChecksum(rewrapped, file.mainFile);
    std::string const text = rewrapped.toString().toStdString();
    DescriptorArea area(text.begin(), text.end());
    area.resize(std::max(area.size(), file.area.size()), 0);
    return {area};
}

DiskRewrapping planDisk(DescriptorFile const& file, PasswordChange const& change) {
    std::optional<DiskKey> key = tryUnwrap(file, change.before.ofDisk);
    if (!key)
        key = tryUnwrap(file, change.before.ofParents);
    CVMDKDescriptor rewrapped = file.parse();
    if (!key) {
        // One that has the new password was changed before the work ended.
        unwrapDiskKey(rewrapped, file.mainFile, change.after);
        return {file, file.isEmbedded ? planEndOfKeyRewrapping(file.area, file.mainFile)
                                      : std::vector<DescriptorArea>()};
    }
    wrapDiskKey(rewrapped, *key, change.after, change.derivation);
    return {file, file.isEmbedded ? planKeyRewrapping(file.area, rewrapped, file.mainFile)
                                  : planTextRewrapping(file, rewrapped)};
}

/// Brings an area to the device, and nothing but the sectors that change.
void storeState(DurableFiles& steps, DescriptorFile const& file, DescriptorArea const& area) {
    auto const [present, wanted] = std::mismatch(file.area.begin(), file.area.end(), area.begin());
    if (wanted == area.end())
        return;
    auto const [lastPresent, lastWanted] =
        std::mismatch(file.area.rbegin(), file.area.rend(), area.rbegin());
    auto const first = (wanted - area.begin()) / kSectorSizeBytes * kSectorSizeBytes;
    auto const end = std::min<std::ptrdiff_t>((area.rend() - lastWanted + kSectorSizeBytes - 1) /
                                                  kSectorSizeBytes * kSectorSizeBytes,
                                              static_cast<std::ptrdiff_t>(area.size()));
    steps.patch(file.mainFile, file.positionBytes + first,
                {area.begin() + first, area.begin() + end});
}

void storeStates(DurableFiles& steps, DiskRewrapping& disk) {
    for (DescriptorArea const& area : disk.states) {
        if (disk.file.isEmbedded) {
            storeState(steps, disk.file, area);
            disk.file.area = area;
        } else {
            disk.file.area = area;
            storeDescriptorFile(steps, disk.file);
        }
    }
}

/// The disk, and its parents if these are asked for, each claimed.
std::vector<DescriptorFile> claimDisks(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                                       PasswordChange const& change, DiskClaims& claims) {
    std::vector<DescriptorFile> disks;
    yx::CURI next = mainFile;
    for (std::size_t count = 0; count <= kMaxChainLength && !next.isEmpty(); ++count) {
        claims.add(readDiskParts(fileSystem, next));
        // Only now nobody changes it any more.
        DiskParts const disk = readDiskParts(fileSystem, next);
        verifyOwnsFiles(fileSystem, disk, change.trust);
        bool const isEncrypted = disk.descriptor.parse().isEncrypted();
        if (isEncrypted) {
            disks.push_back(asStored(fileSystem, disk.descriptor));
        } else if (count == 0) {
            throw yx::CIOError(yx::CIOError::NotAllowed, "The disk is not encrypted.",
                               yx::CProps().add("uri", mainFile.toString(true)), nullptr);
        }
        next = change.withParents ? disk.parentFile : yx::CURI();
    }
    return disks;
}

} // namespace

std::vector<yx::CURI> changePassword(yx::IFileSystem* fileSystem, DurableFiles& steps,
                                     yx::CURI const& mainFile, PasswordChange const& change) {
    DiskClaims claims(fileSystem);
    std::vector<DiskRewrapping> plan;
    for (DescriptorFile const& file : claimDisks(fileSystem, mainFile, change, claims))
        plan.push_back(planDisk(file, change));
    std::vector<yx::CURI> changed;
    for (DiskRewrapping& disk : plan) {
        storeStates(steps, disk);
        DescriptorFile const stored = readDescriptorFile(fileSystem, disk.file.mainFile);
        unwrapDiskKey(stored.parse(), stored.mainFile, change.after);
        changed.push_back(disk.file.mainFile);
    }
    return changed;
}

std::vector<yx::CURI> listEncrypted(yx::IFileSystem* fileSystem,
                                    std::vector<yx::CURI> const& mainFiles) {
    std::vector<yx::CURI> encrypted;
    for (yx::CURI const& mainFile : mainFiles) {
        if (readDescriptorFile(fileSystem, mainFile).parse().isEncrypted())
            encrypted.push_back(mainFile);
    }
    return encrypted;
}

} // namespace kelm::host
