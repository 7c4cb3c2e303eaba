#pragma once

#include "yx/base.h"

namespace kelm {

/// Counts how often the grain tables of a cache turned from unchanged to changed, so that a flush
/// can skip tables that were all flushed at the present count. Internal.
class CVMDKTableChangeCount : public yx::CBase {
public:
    /// The count so far; a table adds to it with its first change since its last flush.
    unsigned long long get() const { return m_count; }
    void increment() { ++m_count; }

    /// Whether all tables of the cache count here. If not, the count means nothing.
    bool isComplete() const { return m_isComplete; }
    void setIncomplete() { m_isComplete = false; }

private:
    unsigned long long m_count = 0;
    bool m_isComplete = true;
};

/// A grain table's reference to the count of its cache; may be empty. A table keeps its count when
/// another table is assigned to it, and the assignment counts as a change. Internal.
class CVMDKTableChangeCountRef {
public:
    CVMDKTableChangeCountRef() = default;
    CVMDKTableChangeCountRef(CVMDKTableChangeCountRef const&) = default;

    /// Counts a change; the other one's count is not taken over.
    CVMDKTableChangeCountRef& operator=(CVMDKTableChangeCountRef const&) {
        noteChange();
        return *this;
    }

    /// The count, null for none yet.
    CVMDKTableChangeCount* get() const { return m_count.get(); }
    void set(CVMDKTableChangeCount* count) { m_count = count; }

    /// Counts a change, if there is a count.
    void noteChange() {
        if (m_count)
            m_count->increment();
    }

private:
    yx::P<CVMDKTableChangeCount> m_count;
};

} // namespace kelm
