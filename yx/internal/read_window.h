#pragma once

#include <memory>

#include "yx/base.h"

namespace yx::detail {

/// A stretch of a stream's content in memory, and what is known of the sequence of reads that it
/// follows. Internal.
class ReadWindow {
public:
    /// A read that starts up to this far behind the window's end still counts as its continuation:
    /// records in a file are separated by padding.
    static constexpr int kMaxSkipBytes = 4 * 1024;

    /// -1 in a window that knows nothing. An empty window may know by its position where a read
    /// ended that needed no window.
    __int64 getPosition() const { return m_position; }
    __int64 getEnd() const { return m_position + m_sizeBytes; }
    int getSizeBytes() const { return m_sizeBytes; }
    unsigned char const* getData() const { return m_data.get(); }

    bool holds(__int64 position) const { return position >= m_position && position < getEnd(); }
    bool isContinuedAt(__int64 position) const;

    /// How much the read that the window was restarted for should fetch.
    int getFetchSizeBytes() const { return m_fetchSizeBytes; }

    /// Counts the uses of all windows of a stream; the lowest number was used longest ago.
    unsigned long long getLastUse() const { return m_lastUse; }
    void setLastUse(unsigned long long lastUse) { m_lastUse = lastUse; }

    /// Forgets the content, and where it was.
    void clear();

    /// The same, and gets ready for a read of this size.
    void restart(int fetchSizeBytes);

    /// Memory for the fetch size; what is put there becomes the content by `fill`.
    unsigned char* reserve();
    void fill(__int64 position, int sizeBytes);

    /// Notes where a read ended that needed no window.
    void noteReadTo(__int64 position) { fill(position, 0); }

    /// Takes written bytes over as far as they lie in the window.
    void patch(__int64 position, unsigned char const* source, int sizeBytes);

    /// Forgets what the window holds of a range, and all behind it.
    void drop(__int64 position, __int64 sizeBytes);

private:
    std::unique_ptr<unsigned char[]> m_data;
    int m_capacityBytes = 0;
    __int64 m_position = -1;
    int m_sizeBytes = 0;
    int m_fetchSizeBytes = 0;
    unsigned long long m_lastUse = 0;
};

} // namespace yx::detail
