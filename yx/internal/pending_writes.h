#pragma once

#include <array>
#include <span>
#include <vector>

#include "yx/base.h"

namespace yx::detail {

class PositionedStream;

/// Small writes that a stream holds back, gathered into extents that do not overlap. Internal.
///
/// A write that starts inside an extent or at its end joins it; another one begins a new extent.
/// Several extents serve tables that are rewritten at two places each while data grows at the end.
/// When all room is taken, the owner writes everything back.
class PendingWrites {
public:
    static constexpr int kMaxExtents = 8;

    /// The limit of all extents together, and so of the pieces that reach the stream.
    static constexpr int kMaxBytes = 1024 * 1024;

    struct Extent {
        __int64 position = 0;
        std::vector<unsigned char> bytes;

        int getSizeBytes() const { return static_cast<int>(bytes.size()); }
        __int64 getEnd() const { return position + getSizeBytes(); }
    };

    bool isEmpty() const { return m_count == 0; }

    /// Where the last extent in the stream ends, 0 without extents.
    __int64 getEnd() const;

    /// Takes a copy of the bytes, or answers false and changes nothing where that needs a
    /// write-back first. Never answers false when empty and given `kMaxBytes` or less.
    bool tryAdd(__int64 position, unsigned char const* source, int sizeBytes);

    /// Puts the bytes held back over what `target` has of the stream's content from `position` on.
    void overlay(__int64 position, unsigned char* target, int sizeBytes) const;

    /// Drops what lies at and behind `length`.
    void cut(__int64 length);

    /// The extent if there is just one and it ends at `position`; else null.
    Extent const* getSoleEndingAt(__int64 position) const;

    /// Writes all extents to `stream`: first those that make it longer, since the others may refer
    /// to what they hold, then by age. Each extent leaves when it is written; a failure keeps that
    /// extent and all behind it.
    void writeBack(PositionedStream& stream);

    /// Drops everything, once the bytes have reached the stream in another way.
    void clear();

private:
    std::span<Extent> used() { return {m_extents.data(), m_count}; }
    std::span<Extent const> used() const { return {m_extents.data(), m_count}; }
    Extent* findJoinable(__int64 position);
    void join(Extent& extent, __int64 position, unsigned char const* source, int sizeBytes);
    void remove(std::size_t index);

    /// Whether the extents are disjoint, none is empty, and their total is right and within its
    /// limit. For assertions.
    bool isConsistent() const;

    /// The first `m_count` are in use, in order of age; the one behind them may keep memory for the
    /// next extent.
    std::array<Extent, kMaxExtents> m_extents;
    std::size_t m_count = 0;
    int m_totalBytes = 0;
};

} // namespace yx::detail
