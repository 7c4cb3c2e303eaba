#pragma once

#include <exception>

#include "kelm/graindata/grain.h"
#include "kelm/metadata/grain_directory.h"
#include "yx/stream.h"

namespace kelm {

/// Reads for `CVMDKSparseExtentFile::read`, and spares callers that go through an extent in order
/// the costs of a cache that they do not use. No other operation reads through it.
///
/// `CVMDKGrain::read` keeps the grain in memory, which makes further small reads of the same grain
/// cheap. A caller that reads whole grains in order never asks for a grain again. For such a caller
/// this class leaves the copy out and reads several grains with one call of the stream.
///
/// A grain is not kept if the request covers all of it, and
///
///   - the request continues behind it, or
///   - the request began where the previous one ended, and that one covered the last grain that it
///     touched, so the caller reads request by request.
///
/// Otherwise the last grain of a request is kept, because small reads of its neighbourhood may
/// follow.
///
/// A grain that is not kept, and that the file holds as it is (not compressed, not enciphered, no
/// changes in memory), is read straight into the caller's buffer. If the grains after it are
/// adjacent in the file too, as far as the request and the grain table go, they are read with the
/// same call. All other grains go through `CVMDKGrain::read`.
///
/// Failures are those of reading grain by grain: the error is that of the first grain that cannot
/// be found or read, and the grains before it have been read. The one exception is a call for
/// several grains that fails although each grain can then be read alone: its error is thrown as if
/// the first of them had failed, because nothing tells which one it was.
class SequentialGrainReader : public yx::CBase, public virtual yx::IBase {
public:
    /// `grain` and `directory` are those of the extent, over `stream`.
    SequentialGrainReader(yx::IIOStream* stream, CVMDKGrainDirectory* directory, CVMDKGrain* grain,
                          __int64 grainSizeSectors, __int64 entriesPerTable);

    /// Where a request stands when its next step begins.
    struct Progress {
        /// The extent's cursor.
        __int64 position;
        /// The extent's index of the open grain, which is not always the one under the cursor.
        __int64 openGrainIndex;
        /// What the request still needs, and how much of that lies in the open grain; at least 1.
        int bytesLeft;
        int bytesLeftInGrain;
    };

    /// Begins a request at `position` of the extent.
    void beginRequest(__int64 position);

    /// Throws what kept `readStep` from looking at the next grain, now that it is that grain's
    /// turn. Called before the grain is opened.
    void throwPostponedFailure();

    /// Reads the rest of the request that lies in the open grain, or several grains from there on.
    /// Returns the number of bytes read. A failure leaves the grain's position unchanged.
    int readStep(void* target, Progress const& progress);

private:
    bool isPassed(Progress const& progress) const;
    int readPassedGrains(void* target, Progress const& progress);
    int countAdjacentGrains(__int64 firstGrainIndex, __int64 limit);
    int readAdjacentGrains(void* target, int grainCount);
    int countReadableGrains(void* target, int grainCount);
    void seekToGrain();

    yx::P<yx::IIOStream> m_stream;
    yx::P<CVMDKGrainDirectory> m_directory;
    yx::P<CVMDKGrain> m_grain;
    __int64 m_grainSizeSectors;
    int m_grainSizeBytes;
    __int64 m_entriesPerTable;
    /// Where the last request ended if it covered its last grain; -1 after any other.
    __int64 m_wholeGrainsReadEnd = -1;
    /// Whether the request began at `m_wholeGrainsReadEnd`.
    bool m_continues = false;
    std::exception_ptr m_postponedFailure;
};

} // namespace kelm
