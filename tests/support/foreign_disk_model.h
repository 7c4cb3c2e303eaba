#pragma once

#include <optional>

#include "tests/support/foreign_chain.h"

namespace test_support {

/// What becomes of a grain of zeros that has no place in a disk's own files when it is left.
enum class ZeroGrains {
    ShowParent, ///< it gets no place, so that the parent shows again, as the library does it
    AreStored,  ///< as programs must have it
};

/// What a foreign disk must read as, in plain arrays, by the rules of the library. A changed grain
/// is in memory until another one is accessed. A grain without data shows the parent, at the byte
/// position that the library computes from grain indices. For an extent whose grain size is not the
/// disk's, and for one that does not begin at a grain boundary of the disk, this is not the
/// position that was asked for.
class ForeignDiskModel {
public:
    /// `below` is what the parent reads as; nothing without a parent.
    ForeignDiskModel(ForeignDisk const& disk, std::optional<Bytes> below,
                     ZeroGrains zeroGrains = ZeroGrains::ShowParent);

    ForeignDisk const& disk() const { return m_disk; }
    bool hasParent() const { return m_below.has_value(); }

    /// The operations of the disk. Ranges must lie within it.
    Bytes read(__int64 position, __int64 sizeBytes);
    void write(__int64 position, Bytes const& bytes);
    void flush();

    /// Flushes, and forgets what is in memory.
    void reopen();

    /// A whole grain in prepared form; `position` is a grain's start.
    void writePrepared(__int64 position, Bytes const& plain);

    /// `makeGrainIndependentOfParent` where the parent has the grain in the same form.
    void makeIndependent(__int64 position);

    /// Opens the grain, which flushes another one, and does no more.
    void enter(__int64 position);

    /// Whether the grain at `position` is stored in this disk's own files or has changes.
    bool isIndependent(__int64 position);

    /// Whether the grain at `position` is stored, whatever is in memory.
    bool isStored(__int64 position) const;

    /// The extent at `position`, and the bytes from there to the extent's end.
    std::size_t extentAt(__int64 position) const;
    __int64 bytesLeftInExtent(__int64 position) const;

    /// All that the disk reads as now.
    Bytes content() const;

private:
    struct Grain {
        Bytes bytes;
        bool isStored = false;
    };
    struct Place {
        std::size_t extent;
        std::size_t grain;
        std::size_t offset;
        std::size_t bytesLeft; ///< in the grain and the extent
    };

    Place placeOf(__int64 position) const;
    void enter(Place const& place);
    Grain& at(Place const& place) { return m_extents[place.extent][place.grain]; }
    Bytes visible(Place const& place) const;
    Bytes below(Place const& place) const;
    std::size_t grainSizeBytes(std::size_t extent) const;

    ForeignDisk m_disk;
    std::optional<Bytes> m_below;
    ZeroGrains m_zeroGrains;
    std::vector<std::vector<Grain>> m_extents;
    std::optional<Place> m_current;
    bool m_isLoaded = false;
    bool m_isDirty = false;
};

} // namespace test_support
