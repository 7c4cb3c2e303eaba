#pragma once

#include <cassert>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/disk/former_disk.h"
#include "host/disk/safe_disk.h"
#include "host/transfer/digest_making.h"
#include "host/transfer/disk_conversion.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/invocation.h"
#include "tools/kelm/password_options.h"

namespace kelm::tool {

/// Tells the user of a disk that a program was replacing, renaming, deleting or repairing when it was
/// killed.
void warnOfEndedWork(Invocation& invocation, yx::CURI const& uri);

/// Derives the keys of a disk and of its parents, those of another password included, before they
/// are opened; see `host::deriveKeysOfChain`. Nothing without a password.
void deriveKeys(Invocation& invocation, yx::CURI const& mainFile, yx::String const& password);

/// Opens the disk that the user names. If it is encrypted and no option gives a password, asks for
/// it on the terminal.
std::unique_ptr<host::SafeDisk> openDisk(Invocation& invocation, std::string const& file,
                                         yx::IIOStream::Access access, PasswordOptions& passwords,
                                         int compressionLevel = -1);

/// Opens a disk by `open`, for writing, to go on with work that was killed, and first takes away
/// what that left dead; see `host::dropDeadTails`. `open` is called once more where there was
/// something.
std::unique_ptr<host::SafeDisk> openToGoOn(
    Invocation& invocation, std::function<std::unique_ptr<host::SafeDisk>()> const& open);

/// The password that the options give or the user types, for a disk that turned out to need one.
host::Password const& askForPassword(Invocation const& invocation, std::string const& file,
                                     PasswordOptions& passwords);

/// Runs `work`, which takes the password that the options give; where it turns out that one is
/// missing, asks for it and runs it once more.
template <class Work>
auto withPassword(Invocation const& invocation, std::string const& file, PasswordOptions& passwords,
                  Work const& work) {
    try {
        return work();
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    askForPassword(invocation, file, passwords);
    return work();
}

/// Opens the parents of a disk for reading, as `host::openParents` does.
std::vector<std::unique_ptr<host::SafeDisk>> openParents(Invocation& invocation,
                                                         host::SafeDisk& disk,
                                                         yx::String const& password);

/// The password that opened a disk; empty if none has been needed so far.
yx::String usedPassword(Invocation const& invocation, PasswordOptions& passwords);

/// Whether a password is needed to read the disk's grains.
bool isEncrypted(host::SafeDisk& disk);

/// All files of a disk and of its parents, those with their digests included, present or not.
std::vector<yx::CURI> listChainFiles(Invocation& invocation, host::SafeDisk& disk,
                                     yx::String const& password);

/// Refuses, with `UsageError`, a file to be written that is one of `files`, which are to be read.
void verifyIsNoneOf(std::vector<yx::CURI> const& files, yx::CURI const& file);

/// The file that the user names for an image or a picture, if it could belong to a disk. None for
/// "-" and for anything but a regular file, such as a pipe or a device.
std::optional<yx::CURI> tryNameRegularFile(std::string const& argument);

/// Refuses, with `UsageError`, an output that the user names if it is a file of `disk` or of one of
/// its parents.
void verifyIsNoFileOf(Invocation& invocation, host::SafeDisk& disk, yx::String const& password,
                      std::string const& output);

/// A disk that is being made. Unless it is finished, its files are removed again. Not for a disk
/// that exists and is only changed: see `openDisk`.
class NewDiskInProgress {
public:
    /// Makes the disk. With `force`, a disk that exists is kept until this ends, and comes back if
    /// the new one is not finished; see `host::KeptFiles`. A file that exists is `CIOError`
    /// `AlreadyExists` unless `force` is given; even then, a disk in use is `CLockFileError`, and
    /// one of `protectedFiles` is `CIOError` `NotAllowed`. A request that makes no sense is
    /// `UsageError`.
    NewDiskInProgress(Invocation& invocation, yx::CURI const& uri, host::NewDisk const& request,
                      bool force, std::vector<yx::CURI> const& protectedFiles = {});

    /// The disk, until `finish`.
    host::SafeDisk& getDisk() {
        assert(m_disk && "the disk is not finished");
        return *m_disk;
    }

    /// Begins to make the digests of the disk, beside it. The object lives until `finish`, which
    /// completes them.
    host::DigestMaking& addDigests();

    /// The same for a copy of what another disk reads as, of which the digests that there are tell
    /// what they can. `password` opens its parents; `from` must outlive the object.
    host::ConversionDigests addDigestsOfCopy(host::SafeDisk& from, yx::String const& password);

    /// Completes the digests, if there are to be any. `imageSizeBytes` is the size of the image
    /// that the disk was filled with.
    void finishDigests(__int64 imageSizeBytes, host::WorkOptions const& options);

    /// Marks the disk as complete and closes it; its files stay. Extent files of a disk that it
    /// replaces are removed, unless files of the new disk have taken their names.
    void finish();

private:
    void keepFormerDisk(yx::CURI const& uri);
    void create(yx::CURI const& uri, host::NewDisk const& request, bool force);

    Invocation& m_invocation;
    std::optional<host::FormerDisk> m_formerDisk;

    // The disk goes before the guard, which deletes its files, and that before the former disk,
    // which comes back then.
    yx::P<host::FileGuard> m_guard;
    std::unique_ptr<host::SafeDisk> m_disk;
    std::optional<host::DigestMaking> m_digests;
    std::unique_ptr<host::ChainDigests> m_digestsOfSource;
};

} // namespace kelm::tool
