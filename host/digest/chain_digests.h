#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "host/digest/disk_digests.h"

namespace kelm::host {

/// The digests of what a child disk gets from its parents, merged from their digest files: what an
/// image is compared with that is to become the child, without a look at the data of the parents.
/// Takes 36 bytes for each of 16384 grains, whatever the size and the number of the disks.
class ChainDigests {
public:
    /// What a grain reads as without the child.
    struct Grain {
        /// The parent that holds it, by its place in the chain; -1 if none does: it is zeros.
        int parent = -1;

        /// Whether that is known, which it is not in a damaged part of a digest file.
        bool isKnown = true;

        /// Its digest under that parent's keys.
        Digest digest{};
    };

    /// Opens the parents of `child`, which stay open, and their digests. Null unless all of them
    /// have digests that are up to date, and grains of one size that are all grains of the child;
    /// also null for a disk without a parent. Errors of digest files are logged as warnings, since
    /// the data of the parents serves as well; others are those of `openParents`.
    static std::unique_ptr<ChainDigests> open(yx::IFileSystem* fileSystem, SafeDisk& child,
                                              yx::String const& password);

    ChainDigests(ChainDigests const&) = delete;
    ChainDigests& operator=(ChainDigests const&) = delete;
    ~ChainDigests() = default;

    /// Looks a grain up. Fastest for indexes that rise. What a digest file says that is damaged there
    /// is logged as a warning, for each 16384 grains, and the grain is not known.
    Grain const& find(__int64 grainIndex);

    /// The digest of what a grain reads as without a child that is not encrypted, which serves that
    /// child too. Nothing where no parent holds the grain, where the digests of the one that does
    /// have a key, or where it is not known.
    std::optional<Digest> findPlain(__int64 grainIndex);

    /// New hashers for one thread, one for each parent by its place in the chain.
    std::vector<std::unique_ptr<GrainHasher>> makeHashers() const;

private:
    ChainDigests() = default;

    bool tryAdd(yx::IFileSystem* fileSystem, std::unique_ptr<SafeDisk> parent,
                __int64 grainSizeBytes);
    void loadSection(__int64 number);
    void mergeSection(std::size_t parent, __int64 number);

    struct Parent {
        std::unique_ptr<SafeDisk> disk;
        DigestKeys keys;
        std::unique_ptr<DigestFile> digests;
    };

    /// The nearest first.
    std::vector<Parent> m_parents;

    /// The grains of one section; -1 for none.
    __int64 m_sectionNumber = -1;
    std::vector<Grain> m_section;
};

} // namespace kelm::host
