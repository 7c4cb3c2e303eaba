#include "host/transfer/early_writes.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace kelm::host {

EarlyWrites::EarlyWrites(int workerCount, Write write)
    : m_write(std::move(write)), m_left(static_cast<std::size_t>(std::max(workerCount, 1))) {}

void EarlyWrites::write(ExportRun const& run, int worker) {
    bool mayLeave = false;
    {
        std::lock_guard const lock(m_listMutex);
        Left& left = m_left[static_cast<std::size_t>(worker)];
        left.push_back(&run);
        mayLeave = left.size() <= kMaxLeft;
    }
    std::unique_lock file(m_fileMutex, std::try_to_lock);
    if (!file.owns_lock() && mayLeave)
        return;
    if (!file.owns_lock())
        file.lock();
    writeLeft(worker);
}

void EarlyWrites::writeLeft(int worker) {
    while (ExportRun const* const run = findFirst(worker)) {
        m_write(*run);
        remove(*run);
    }
}

ExportRun const* EarlyWrites::findFirst(int worker) {
    std::lock_guard const lock(m_listMutex);
    Left const& left = m_left[static_cast<std::size_t>(worker)];
    return left.empty() ? nullptr : left.front();
}

bool EarlyWrites::isLeft(ExportRun const& run) {
    std::lock_guard const lock(m_listMutex);
    return std::any_of(m_left.begin(), m_left.end(), [&](Left const& left) {
        return std::find(left.begin(), left.end(), &run) != left.end();
    });
}

void EarlyWrites::remove(ExportRun const& run) {
    std::lock_guard const lock(m_listMutex);
    for (Left& left : m_left)
        left.erase(std::remove(left.begin(), left.end(), &run), left.end());
}

void EarlyWrites::finish(ExportRun const& run) {
    if (!isLeft(run))
        return;
    std::lock_guard const file(m_fileMutex);
    // Its worker may have been at it until now.
    if (!isLeft(run))
        return;
    m_write(run);
    remove(run);
}

} // namespace kelm::host
