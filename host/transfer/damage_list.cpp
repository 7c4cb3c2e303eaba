#include "host/transfer/damage_list.h"

#include <cassert>

namespace kelm::host {

namespace {

constexpr std::size_t kMaxDamagedStretches = 1 << 17;

} // namespace

void DamageList::add(DamagedStretch const& stretch) {
    assert(stretch.startBytes < stretch.endBytes);
    assert(m_stretches.empty() || m_stretches.back().endBytes <= stretch.startBytes);
    m_damagedBytes += stretch.endBytes - stretch.startBytes;
    if (!m_stretches.empty()) {
        DamagedStretch& last = m_stretches.back();
        bool const isNeighbour = last.endBytes == stretch.startBytes && last.file == stretch.file &&
                                 last.reason == stretch.reason;
        if (isNeighbour || m_stretches.size() >= kMaxDamagedStretches) {
            last.endBytes = stretch.endBytes;
            return;
        }
    }
    m_stretches.push_back(stretch);
}

} // namespace kelm::host
