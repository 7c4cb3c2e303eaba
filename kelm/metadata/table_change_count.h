#pragma once

#include "yx/base.h"

namespace kelm {

/// How often the grain tables of a cache turned from unchanged to changed. Who knows that all tables
/// were flushed at some count need not look at them again while it stays. Internal.
class CVMDKTableChangeCount : public yx::CBase {
public:
    /// The count, and one more.
    unsigned long long get() const { return m_count; }
    void increment() { ++m_count; }

    /// Whether all tables of the cache count here.
    bool isComplete() const { return m_isComplete; }
    void setIncomplete() { m_isComplete = false; }

private:
    unsigned long long m_count = 0;
    bool m_isComplete = true;
};

} // namespace kelm
