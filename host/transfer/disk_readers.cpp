#include "host/transfer/disk_readers.h"

#include <cassert>
#include <utility>

#include "host/transfer/grain_place.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

DiskReaders::DiskReaders(std::unique_ptr<SafeDisk> first, int maxReaders, Open open)
    : m_open(std::move(open)), m_maxReaders(maxReaders) {
    assert(first && maxReaders >= 1);
    // So that giving an object back needs no memory.
    m_idle.reserve(static_cast<std::size_t>(maxReaders));
    m_idle.push_back(std::move(first));
}

DiskReaders::~DiskReaders() {
    assert(m_idle.size() == static_cast<std::size_t>(m_readerCount));
}

void DiskReaders::read(__int64 positionBytes, void* buffer, int bytes) {
    if (m_direct && m_direct->tryRead(positionBytes, buffer, bytes))
        return;
    use([=](SafeDisk& disk) { readWithGrainPlace(disk, positionBytes, buffer, bytes); });
}

bool DiskReaders::isGrainWritten(__int64 grainIndex) {
    if (m_direct) {
        if (std::optional<bool> const isWritten = m_direct->isGrainWritten(grainIndex))
            return *isWritten;
    }
    return use([=](SafeDisk& disk) { return disk.isGrainWritten(grainIndex); });
}

std::unique_ptr<SafeDisk> DiskReaders::take() {
    std::unique_lock lock(m_mutex);
    while (m_idle.empty()) {
        if (m_readerCount < m_maxReaders && !m_isOpening) {
            if (std::unique_ptr<SafeDisk> opened = openAnother(lock))
                return opened;
        } else {
            m_isIdle.wait(lock);
        }
    }
    std::unique_ptr<SafeDisk> disk = std::move(m_idle.back());
    m_idle.pop_back();
    return disk;
}

/// Null if it fails.
std::unique_ptr<SafeDisk> DiskReaders::openAnother(std::unique_lock<std::mutex>& lock) {
    m_isOpening = true;
    lock.unlock();
    std::unique_ptr<SafeDisk> opened;
    try {
        opened = m_open();
    } catch (std::exception const& error) {
        yx::logWarning(error, "The disk cannot be opened once more, so fewer read it at once.", "");
    }
    lock.lock();
    m_isOpening = false;
    if (opened)
        ++m_readerCount;
    else
        m_maxReaders = m_readerCount;
    // Those that wait may open another, or learn that they cannot.
    m_isIdle.notify_all();
    return opened;
}

void DiskReaders::giveBack(std::unique_ptr<SafeDisk> disk) {
    {
        std::lock_guard const lock(m_mutex);
        m_idle.push_back(std::move(disk));
    }
    m_isIdle.notify_one();
}

} // namespace kelm::host
