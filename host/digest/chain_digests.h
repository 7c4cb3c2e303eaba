#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "host/digest/disk_digests.h"

namespace kelm::host {

/// The digests of what a disk reads as, or of what a child disk gets from its parents, merged from
/// their digest files: what an image is compared with that is to become the child, without a look
/// at the data of the parents, and what is copied is compared with.
/// Takes 36 bytes for each of 16384 grains, whatever the size and the number of the disks.
class ChainDigests {
public:
    /// What a grain reads as without the child.
    struct Grain {
        /// The disk that holds it, by its place among those that are merged; -1 if none does: it is
        /// zeros.
        int holder = -1;

        /// Whether that is known, which it is not in a damaged part of a digest file.
        bool isKnown = true;

        /// Its digest under that disk's keys.
        Digest digest{};
    };

    /// Opens the parents of `child`, which stay open, and their digests. Null unless all of them
    /// have digests that are up to date, and grains of one size that are all grains of the child;
    /// also null for a disk without a parent. Errors of digest files are logged as warnings, since
    /// the data of the parents serves as well; others are those of `openParents`.
    static std::unique_ptr<ChainDigests> open(yx::IFileSystem* fileSystem, SafeDisk& child,
                                              yx::String const& password);

    /// The same for what may be merged in part: those of the parents up to the first one that has
    /// none. What no disk before that one holds is not known. Null if the first has none.
    static std::unique_ptr<ChainDigests> openSome(yx::IFileSystem* fileSystem, SafeDisk& child,
                                                  yx::String const& password);

    /// The same for `disk`, which comes first, and its parents. `disk` must outlive the object.
    static std::unique_ptr<ChainDigests> openOfDisk(yx::IFileSystem* fileSystem, SafeDisk& disk,
                                                    yx::String const& password);

    ChainDigests(ChainDigests const&) = delete;
    ChainDigests& operator=(ChainDigests const&) = delete;
    ~ChainDigests() = default;

    /// Looks a grain up. Fastest for indexes that rise. What a digest file says that is damaged there
    /// is logged as a warning, for each 16384 grains, and the grain is not known.
    Grain const& find(__int64 grainIndex);

    /// How many grains from one on, at most `maxGrains`, are known to be held by no disk: `find`
    /// gives -1 for each. 0 says nothing. Much faster than to look each of them up.
    __int64 countAbsent(__int64 grainIndex, __int64 maxGrains);

    /// The digest of a grain that serves a disk that is not encrypted too. Nothing where no disk
    /// holds the grain, where the digests of the one that does have a key, or where it is not known.
    std::optional<Digest> findPlain(__int64 grainIndex);

    /// Whether the digests of a holder are plain ones, which serve every disk that is not encrypted.
    bool arePlain(int holder) const { return !m_members[placeOf(holder)].keys.isKeyed; }

    /// New hashers for one thread, one for each disk by its place.
    std::vector<std::unique_ptr<GrainHasher>> makeHashers() const;

private:
    ChainDigests() = default;

    static std::size_t placeOf(int holder) { return static_cast<std::size_t>(holder); }

    bool tryAdd(yx::IFileSystem* fileSystem, SafeDisk& disk, __int64 grainSizeBytes);
    bool tryAddParents(yx::IFileSystem* fileSystem, SafeDisk& child, yx::String const& password);
    void loadSection(__int64 number);
    void mergeSection(std::size_t place, __int64 number);

    struct Member {
        DigestKeys keys;
        std::unique_ptr<DigestFile> digests;
    };

    /// The nearest first.
    std::vector<Member> m_members;

    /// Nobody changes them meanwhile.
    std::vector<std::unique_ptr<SafeDisk>> m_openParents;

    /// Whether no disk is left out.
    bool m_isWhole = true;

    /// The grains of one section; -1 for none.
    __int64 m_sectionNumber = -1;
    std::vector<Grain> m_section;
};

} // namespace kelm::host
