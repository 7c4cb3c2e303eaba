#pragma once

#include <cassert>

#include <fcntl.h>

#include "yx/base.h"

namespace yx::detail {

/// Starts writing to the device early where a file is written in order, so that a sync at the end
/// finds most of the work done. Internal.
///
/// It follows runs of writes that continue one another. Writes at random places are left alone,
/// since they may be overwritten before they have to reach the device. It guarantees nothing: that
/// is what a sync is for, and failures of the device show there.
class EarlyWriteBack {
public:
    /// `position` and `sizeBytes` are of a write that was done.
    void onWritten(int descriptor, __int64 position, __int64 sizeBytes) {
        bool const goesOn = position >= m_end && position - m_end <= kMaxGapBytes;
        if (!goesOn) {
            m_begin = position;
            m_newBytes = 0;
        }
        m_end = position + sizeBytes;
        m_newBytes += sizeBytes;
        assert(m_newBytes <= m_end - m_begin);
        if (m_newBytes >= kBatchBytes)
            begin(descriptor);
    }

private:
    /// Large enough that the device is kept busy by few calls.
    static constexpr __int64 kBatchBytes = 8 << 20;

    /// Holes in a file that is written in order.
    static constexpr __int64 kMaxGapBytes = 64 << 20;

    /// A page that is not full yet is left for the next time.
    static constexpr __int64 kPageBytes = 4096;

    /// A refusal changes nothing: the sync then has all to do.
    void begin(int descriptor) {
        __int64 const end = m_end / kPageBytes * kPageBytes;
#if defined(SYNC_FILE_RANGE_WRITE)
        ::sync_file_range(descriptor, m_begin, end - m_begin, SYNC_FILE_RANGE_WRITE);
#else
        static_cast<void>(descriptor);
#endif
        assert(m_begin <= end && end <= m_end);
        m_begin = end;
        m_newBytes = 0;
    }

    /// The part of the present run that the device has not begun with, holes included, and how many
    /// of its bytes were written.
    __int64 m_begin = 0;
    __int64 m_end = 0;
    __int64 m_newBytes = 0;
};

} // namespace yx::detail
