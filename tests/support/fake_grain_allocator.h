#pragma once

#include <map>
#include <vector>

#include "kelm/metadata/igrain_allocator.h"
#include "yx/stream.h"

namespace test_support {

/// A grain allocator with its own grain table: it stores each grain behind the one before and
/// records what it was asked.
class FakeGrainAllocator : public yx::CBase, public virtual kelm::IVMDKGrainAllocator {
public:
    struct Allocation {
        __int64 grainIndex;
        int sizeBytes;
        int slotSizeSectors;
        bool keepBuffer;

        bool operator==(Allocation const&) const = default;
    };

    struct Slot {
        __int64 posSectors = 0;
        __int64 sizeSectors = 0;
    };

    /// The first slot begins at `nextPosSectors`.
    FakeGrainAllocator(yx::IIOStream* stream, __int64 nextPosSectors)
        : m_stream(stream), m_nextPosSectors(nextPosSectors) {}

    /// What was asked, refused allocations aside.
    std::vector<Allocation>& allocations() { return m_allocations; }

    /// The table entry of a grain; zeros if it has none.
    Slot slotOf(__int64 grainIndex) const;
    void setSlot(__int64 grainIndex, Slot slot) { m_table[grainIndex] = slot; }

    __int64 getNextPosSectors() const { return m_nextPosSectors; }

    /// While set, an allocation is `CIOError` `NoSpace`, "Scripted allocation failure.", and
    /// changes nothing.
    void setFailing(bool failing) { m_failing = failing; }

    void flushChangesToStream() override {}
    __int64 allocNewGrain(__int64 grainIndex, void const* data, int size,
                          int slotSizeSectors) override;
    __int64 allocNewGrainKeepBuffer(__int64 grainIndex,
                                    yx::TConstBufferSlice<unsigned char> const& data,
                                    int slotSizeSectors) override;

private:
    __int64 enter(Allocation const& allocation);
    void fill(__int64 endBytes);
    void failIfAsked();

    yx::P<yx::IIOStream> m_stream;
    __int64 m_nextPosSectors;
    std::vector<Allocation> m_allocations;
    std::map<__int64, Slot> m_table;
    bool m_failing = false;
};

} // namespace test_support
