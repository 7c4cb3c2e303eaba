#pragma once

#include <optional>
#include <utility>

#include "host/digest/chain_digests.h"
#include "host/digest/digest_file.h"
#include "host/digest/digest_file_writer.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_item.h"
#include "host/transfer/image_hasher.h"
#include "host/transfer/known_digests.h"
#include "host/transfer/unpreparer.h"

namespace kelm::host {

/// Makes the digests of a disk: those that come while it is being filled, and those of all other
/// grains that it holds, which are read again at the end.
///
/// The digest file is new, and has no header until `finish` has ended: what is killed before leaves
/// a disk without digests.
class DigestMaking {
public:
    /// Makes the digest file in `fileSystem`, which is the `FileGuard` of a new disk; an old one is
    /// deleted. `disk` must outlive the object.
    DigestMaking(yx::IFileSystem* fileSystem, SafeDisk& disk);

    /// For `GrainHasher`, of which each worker has its own.
    DigestKeys const& getKeys() const { return m_keys; }

    /// Demands a digest of the image too, of which the caller passes all bytes to what this
    /// returns, or from its start as many as it has.
    ImageHasher& addImage() { return m_image.emplace(); }

    /// What `addImage` returned; null without one.
    ImageHasher* getImage() { return m_image ? &*m_image : nullptr; }

    /// Takes what `former` has, which are the digests of what the disk still holds, instead of
    /// reading those grains again: reading would give a grain that was damaged since a digest that
    /// fits it. The digest of the image is taken too. `former` must outlive the object; for a disk
    /// that reads as it did, but may hold more of it. The digests of that are taken from `parents`,
    /// which may be null, for the same reason, or what is read is compared with them where disks
    /// have keys; they too must outlive the object.
    void keep(DigestFile& former, ChainDigests* parents);

    /// The digest of a grain that the disk holds now. Indexes rise from call to call, and no grain
    /// but the last one is changed after its call, nor one that was passed over and lies before.
    void add(__int64 grainIndex, Digest const& digest);

    /// The rest, once the disk is filled. Flushes the disk, reads the grains that it holds from the
    /// last one added on, completes the file and brings it to the device. A change of the disk after
    /// that gives it a new content ID (`SafeDisk::settleContent`). `imageSizeBytes` is how much of
    /// the disk is its image. The error of a grain that cannot be read has its place.
    void finish(__int64 imageSizeBytes, WorkOptions const& options);

private:
    void addRest(WorkOptions const& options);
    void fill(GrainItem& item, Unpreparer& unpreparer, KnownDigests& known);
    std::optional<Digest> findKept(__int64 grainIndex);

    SafeDisk& m_disk;
    DigestFile* m_former = nullptr;
    ChainDigests* m_parents = nullptr;
    DigestKeys m_keys;
    DigestFileWriter m_writer;
    std::optional<ImageHasher> m_image;

    /// The last one added. It may change, when the end of the image within it is cut.
    std::optional<std::pair<__int64, Digest>> m_last;
};

} // namespace kelm::host
