#include "host/transfer/transfer_progress.h"

#include <algorithm>
#include <cassert>

#include "host/system/transfer_meter.h"

namespace kelm::host {

TransferProgress::TransferProgress(WorkOptions const& options, __int64 totalBytes)
    : m_throttle(options.progress),
      m_cancel(options.cancel),
      m_meter(options.meter),
      m_totalBytes(totalBytes) {}

void TransferProgress::addRead(__int64 bytes) {
    if (m_meter)
        m_meter->addRead(bytes);
}

void TransferProgress::addStored(__int64 bytes) {
    if (m_meter)
        m_meter->addStored(bytes);
}

void TransferProgress::advanceTo(__int64 doneBytes) {
    assert(doneBytes >= 0);
    assert(m_totalBytes < 0 || doneBytes <= m_totalBytes);
    m_doneBytes = std::max(m_doneBytes, doneBytes);
    if (m_cancel)
        m_cancel->check();
    m_throttle.report(m_doneBytes, m_totalBytes);
}

void TransferProgress::finish(__int64 doneBytes) {
    assert(doneBytes >= m_doneBytes);
    m_throttle.report(doneBytes, doneBytes);
}

} // namespace kelm::host
