#include "host/transfer/parent_swap.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/transfer/chain_difference.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/plain_grains.h"
#include "host/transfer/transfer_progress.h"

namespace kelm::host {

/// What lies in one grain of a file of the child, and where its parents are read for it.
struct ParentSwap::Part {
    __int64 positionBytes;
    int bytes;
    __int64 parentPositionBytes;
    bool isGrainOfDisk;
};

ParentSwap::ParentSwap(SafeDisk& child, Parents parents)
    : m_child(child), m_parents(std::move(parents)) {
    assert(child.hasParent() && m_parents.oldParent);
    assert(m_parents.newParent || m_parents.joined.empty());
}

/// Calls `use` for each part of the grain.
template <class Use>
void ParentSwap::forEachPart(__int64 grainIndex, Use const& use) {
    __int64 positionBytes = grainIndex * m_child.getGrainSizeBytes();
    __int64 const endBytes =
        std::min(positionBytes + m_child.getGrainSizeBytes(), m_child.getSizeBytes());
    while (positionBytes < endBytes) {
        FileGrain const grain = m_child.getFileGrain(positionBytes);
        __int64 const partEndBytes = std::min(grain.endBytes, endBytes);
        use(Part{positionBytes, static_cast<int>(partEndBytes - positionBytes),
                 grain.parentStartBytes + (positionBytes - grain.startBytes), grain.isGrainOfDisk});
        positionBytes = partEndBytes;
    }
}

/// Whether `use` is true for a part of the grain.
template <class Use>
bool ParentSwap::anyPart(__int64 grainIndex, Use const& use) {
    bool isAny = false;
    forEachPart(grainIndex, [&](Part const& part) { isAny = isAny || use(part); });
    return isAny;
}

bool ParentSwap::mayDiffer(Part const& part) {
    if (!m_parents.newParent)
        return m_child.isWritten(part.positionBytes, part.bytes);
    __int64 const startBytes = part.parentPositionBytes;
    if (!passAllOn(m_parents.left, *m_parents.newParent, startBytes, part.bytes))
        return true;
    return std::any_of(m_parents.joined.begin(), m_parents.joined.end(), [&](SafeDisk* const link) {
        return startBytes + part.bytes > link->getSizeBytes() ||
               !link->isPassedOn(startBytes, part.bytes);
    });
}

bool ParentSwap::isNewWritten(Part const& part) {
    return m_parents.newParent &&
           isWrittenInside(*m_parents.newParent, part.parentPositionBytes, part.bytes);
}

void ParentSwap::readNew(Part const& part) {
    m_new.resize(static_cast<std::size_t>(part.bytes));
    if (m_parents.newParent)
        readAsParent(*m_parents.newParent, part.parentPositionBytes, m_new);
    else
        std::fill(m_new.begin(), m_new.end(), static_cast<unsigned char>(0));
}

bool ParentSwap::differs(Part const& part) {
    if (!m_child.isWritten(part.positionBytes, part.bytes) && !isNewWritten(part))
        return false;
    m_old.resize(static_cast<std::size_t>(part.bytes));
    readWithGrainPlace(m_child, part.positionBytes, m_old.data(), part.bytes);
    readNew(part);
    return m_old != m_new;
}

void ParentSwap::throwAt(yx::CIOError::Code code, char const* message, Part const& part) {
    throw yx::CIOError(code, message,
                       yx::CProps()
                           .add("uri", m_child.getDisk().getMainFileURI().toString(true))
                           .add("position", yx::toString(part.positionBytes)),
                       nullptr);
}

/// How many grains from one on are known to be read from the same place of the parent, whichever
/// that is.
__int64 ParentSwap::countNotHere(__int64 grainIndex, __int64 maxGrains) {
    return countGrainsNotHere(m_child, grainIndex, maxGrains);
}

/// How many grains from one on, of so many that `countNotHere` has counted, are known not to be
/// `mayDiffer`.
__int64 ParentSwap::countPassedOn(__int64 grainIndex, __int64 maxGrains) {
    if (!m_parents.newParent)
        return countUnwrittenGrains(m_child, grainIndex, maxGrains);
    __int64 const grainSizeBytes = m_child.getGrainSizeBytes();
    __int64 const positionBytes = grainIndex * grainSizeBytes;
    __int64 const bytes =
        countBytesPassedOn(m_parents.left, positionBytes, maxGrains * grainSizeBytes);
    return countBytesPassedOn(m_parents.joined, positionBytes, bytes) / grainSizeBytes;
}

/// The same for grains that neither the child's old parents hold nor the new ones.
__int64 ParentSwap::countUnwritten(__int64 grainIndex, __int64 maxGrains) {
    __int64 const grains = countUnwrittenGrains(m_child, grainIndex, maxGrains);
    if (!m_parents.newParent)
        return grains;
    __int64 const grainSizeBytes = m_child.getGrainSizeBytes();
    return countUnwrittenInside(*m_parents.newParent, grainIndex * grainSizeBytes,
                                grains * grainSizeBytes) /
           grainSizeBytes;
}

GrainSet ParentSwap::findByTables(CancelFlag const* cancel) {
    return chooseGrains(
        m_child, cancel,
        [&](__int64 grain) {
            // Most grains of a link are not there, so one look into tables does for them.
            return anyPart(grain,
                           [&](Part const& part) { return mayDiffer(part) && !isHeld(part); });
        },
        [&](__int64 grain, __int64 maxGrains) {
            return countPassedOn(grain, countNotHere(grain, maxGrains));
        });
}

GrainSet ParentSwap::findByContent(WorkOptions const& options) {
    TransferProgress progress(options, m_child.getSizeBytes());
    GrainSet found = chooseGrains(
        m_child, nullptr,
        [&](__int64 grain) {
            progress.advanceTo(grain * m_child.getGrainSizeBytes());
            return anyPart(grain, [&](Part const& part) {
                return mayDiffer(part) && !isHeld(part) && differs(part);
            });
        },
        [&](__int64 grain, __int64 maxGrains) {
            __int64 const grains = countNotHere(grain, maxGrains);
            __int64 const passedOn = countPassedOn(grain, grains);
            return passedOn > 0 ? passedOn : countUnwritten(grain, grains);
        });
    progress.finish(m_child.getSizeBytes());
    return found;
}

void ParentSwap::verifyCanHold(GrainSet const& grains) {
    for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
         grain = grains.findNext(grain + 1)) {
        forEachPart(grain, [&](Part const& part) {
            if (part.isGrainOfDisk || isHeld(part) || !isNewWritten(part) || !differs(part))
                return;
            if (yx::isAllZero(m_old.data(), m_old.size()))
                throwAt(yx::CIOError::NotSupported,
                        "The disk cannot keep zeros over what its new parent has.", part);
        });
    }
}

void ParentSwap::verifyReadsAsBefore(GrainSet const& heldBefore, WorkOptions const& options) {
    TransferProgress progress(options, m_child.getSizeBytes());
    __int64 const grainCount = m_child.getGrainCount();
    __int64 emptyEnd = 0;
    for (__int64 grain = 0; grain < grainCount; grain = std::max(grain + 1, emptyEnd)) {
        progress.advanceTo(grain * m_child.getGrainSizeBytes());
        if (heldBefore.contains(grain))
            continue;
        emptyEnd = grain + countUnwritten(grain, countNotHere(grain, grainCount - grain));
        if (emptyEnd > grain)
            continue;
        forEachPart(grain, [&](Part const& part) {
            if (isHeld(part) ? isCopyWrong(part) : differs(part))
                throwAt(yx::CIOError::CorruptData, "The disk would not read as before.", part);
        });
    }
    progress.finish(m_child.getSizeBytes());
}

bool ParentSwap::isHeld(Part const& part) {
    return m_child.isWrittenHere(part.positionBytes, part.bytes);
}

/// Whether a copy that the child got differs from what it was copied from.
bool ParentSwap::isCopyWrong(Part const& part) {
    // A grain of another size may have been the child's own before, beside one that was not.
    if (!part.isGrainOfDisk)
        return false;
    m_old.resize(static_cast<std::size_t>(part.bytes));
    m_new.resize(static_cast<std::size_t>(part.bytes));
    readAsParent(*m_parents.oldParent, part.parentPositionBytes, m_old);
    readWithGrainPlace(m_child, part.positionBytes, m_new.data(), part.bytes);
    return m_old != m_new;
}

GrainSet findOwnGrains(SafeDisk& disk, CancelFlag const* cancel) {
    return chooseGrains(
        disk, cancel, [&](__int64 grain) { return disk.isGrainWrittenHere(grain); },
        [&](__int64 grain, __int64 maxGrains) {
            return countGrainsNotHere(disk, grain, maxGrains);
        });
}

} // namespace kelm::host
