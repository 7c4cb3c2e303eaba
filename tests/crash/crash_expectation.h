#pragma once

#include <memory>
#include <string>
#include <vector>

#include "tests/crash/crash_history.h"

namespace test_support {

/// What a disk may read as after a power cut at some moment of a history.
///
/// - A grain that was not written to since the last flush is exact.
/// - A grain that had no place of its own then, and was written once since, is as before or as
///   written.
/// - Any other grain may have been rewritten in its place:
///   - Stored plain, each of its sectors is as it was at some time since the flush.
///   - Stored enciphered and not compressed, the same, but the first 16 bytes of each sector behind
///     the first changed byte may be anything, since the cipher chains each block to the one
///     before.
///   - Stored compressed, the grain is as it was at some time since the flush, or reading it is an
///     error.
class CrashExpectation {
public:
    CrashExpectation(Way way, CrashKind const& kind, CrashHistory const& history,
                     std::vector<int> extentStarts);

    /// Moves on to the moment when so many operations of the record were done. Never goes back.
    void moveTo(std::size_t operations);

    /// Whether the disk is there for certain.
    bool isCreated() const { return m_isCreated; }

    /// What is wrong with a grain's content; empty if nothing is.
    std::string checkContent(int grain, Bytes const& content) const;

    /// Whether reading the grain may be an error. To `SafeDisk` it makes no difference whether the
    /// disk was opened for writing after the cut. `isUnmarked` means that the grain's extent file,
    /// which was made on demand, is there in a part that nothing marks as the disk's.
    bool mayFail(int grain, bool isUnmarked) const;

private:
    struct Grain {
        /// Newest last; the first is what the last flush left.
        std::vector<std::shared_ptr<Bytes const>> versions;

        /// It may have had a place of its own at the last flush.
        bool mayHavePlace = false;
    };

    bool mayBeRewritten(Grain const& grain) const;
    bool isMixOfSectors(Grain const& grain, Bytes const& content) const;
    void finishStep(CrashHistory::Step const& step);
    int extentOf(int grain) const;

    Way m_way;
    CrashKind const& m_kind;
    CrashHistory const& m_history;
    std::vector<int> m_extentStarts;
    std::vector<bool> m_extentIsFlushed;
    std::size_t m_startedSteps = 0;
    std::size_t m_finishedSteps = 0;
    bool m_isCreated = false;
    std::vector<Grain> m_grains;
};

} // namespace test_support
