#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/disk/file_guard.h"
#include "host/disk/former_disk.h"
#include "host/disk/safe_disk.h"
#include "host/store/file_systems.h"
#include "host/transfer/digest_making.h"
#include "host/transfer/disk_conversion.h"
#include "integrations/python/conversions.h"

namespace kelm::python {

/// What a user wants a new disk to be. Sizes are -1 where none is given, texts "".
struct NewDiskOptions {
    __int64 sizeBytes = -1;
    bool compressed = false;
    int level = -1;
    __int64 splitBytes = -1;
    bool encrypt = false;
    __int64 rounds = -1;
    std::string parent;
    bool onDemand = false;
    std::string label;
    bool digests = true;

    /// The request for the disk. A size of -1 becomes that of the parent. The disk is encrypted if
    /// the user asks for that or if its parent is encrypted, under the password of `access`; its
    /// lack is `yx::CInvalidArgError`, and so are a missing size, a label that is too long, and
    /// numbers that make no sense.
    host::NewDisk makeRequest(yx::IFileSystem* fileSystem, Access const& access) const;
};

/// As functions of the module take them; see `getHeld`.
using GivenOptions = std::shared_ptr<NewDiskOptions>;

/// Refuses, with `yx::CInvalidArgError`, a password for a disk that would not be encrypted: who
/// gives one relies on it.
void verifyUsesPassword(host::NewDisk const& request, Access const& access);

/// A disk that is being made. Unless it is finished, its files are removed again.
class DiskMaking {
public:
    /// What becomes of files that exist.
    enum class Present {
        Refused,  ///< `CIOError` `AlreadyExists`
        Replaced, ///< the disk that is there stays until the new one is finished
    };

    /// A request that makes no sense is `yx::CInvalidArgError`. `protectedFiles` are never replaced.
    /// `cancel` must outlive the object.
    DiskMaking(yx::IFileSystem* fileSystem, yx::CURI const& uri, host::NewDisk const& request,
               host::CancelFlag const& cancel, std::vector<yx::CURI> const& protectedFiles = {},
               Present present = Present::Refused);
    DiskMaking(DiskMaking const&) = delete;
    DiskMaking& operator=(DiskMaking const&) = delete;
    ~DiskMaking() = default;

    /// The disk, until `finish`.
    host::SafeDisk& getDisk() { return *m_disk; }

    /// Begins to make the digests of the disk, beside it.
    host::DigestMaking& addDigests();

    /// The same for a copy of what another disk reads as, of which the digests that there are tell
    /// what they can. `from`, opened in `fileSystem` with its `password`, must outlive the object.
    host::ConversionDigests addDigestsOfCopy(yx::IFileSystem* fileSystem, host::SafeDisk& from,
                                             yx::String const& password);

    /// Completes the digests, if there are any, marks the disk as complete and closes it; its files
    /// stay. `imageSizeBytes` is the size of the image that the disk was filled with.
    void finish(__int64 imageSizeBytes, host::WorkOptions const& options);

private:
    void keepFormerDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri);

    host::CancelFlag const& m_cancel;

    // The disk goes before the guard, which deletes its files, and that before the former disk,
    // which is then put back.
    std::optional<host::FormerDisk> m_formerDisk;
    yx::P<host::FileGuard> m_guard;
    std::unique_ptr<host::SafeDisk> m_disk;
    std::optional<host::DigestMaking> m_digests;
    std::unique_ptr<host::ChainDigests> m_digestsOfSource;
};

/// What has been made of a disk: the fields of `kelm.Made`.
struct MadeDisk {
    yx::CURI file;
    __int64 sizeBytes = 0;
    __int64 imageBytes = 0;
    bool hasDigests = false;

    /// Of an image whose free blocks were left out; not described.
    std::optional<__int64> freeBytes = {};

    pybind11::dict describe() const;
};

/// Gives the request for a copy of a disk the facts about its image: time, source, host, and the
/// label unless the request has one.
void inheritRecord(host::SafeDisk& from, host::NewDisk& request);

/// Refuses, with `yx::CInvalidArgError`, a URI of a store for an image: only disks lie there.
void verifyIsLocalImage(std::string const& path);

/// The file that a user names for an image, if it could belong to a disk. None for "-" and for
/// anything but a regular file.
std::optional<yx::CURI> tryNameRegularFile(std::string const& path);

/// All files of a disk and of its parents, those with their digests included, present or not.
std::vector<yx::CURI> listChainFiles(yx::IFileSystem* fileSystem, host::SafeDisk& disk,
                                     yx::String const& password);

/// Refuses, with `yx::CInvalidArgError`, a file to be written that is one of `files`, which are to
/// be read.
void verifyIsNoneOf(std::vector<yx::CURI> const& files, yx::CURI const& file);

/// The options of work that comes before or after the part whose progress is shown.
host::WorkOptions withoutProgress(host::WorkOptions const& options);

} // namespace kelm::python
