#pragma once

#include "yx/base.h"

namespace kelm {

/// How often the grain tables of a cache turned from unchanged to changed. Tables that were all
/// flushed at some count need no further look as long as the count stays. Internal.
class CVMDKTableChangeCount : public yx::CBase {
public:
    /// The count so far; a table adds to it with its first change since its last flush.
    unsigned long long get() const { return m_count; }
    void increment() { ++m_count; }

    /// Whether all tables of the cache count here. If not, the count tells nothing.
    bool isComplete() const { return m_isComplete; }
    void setIncomplete() { m_isComplete = false; }

private:
    unsigned long long m_count = 0;
    bool m_isComplete = true;
};

} // namespace kelm
