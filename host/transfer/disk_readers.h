#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "host/disk/safe_disk.h"
#include "host/transfer/direct_reading.h"

namespace kelm::host {

/// Several objects of one disk that is open for reading, so that several threads can read it at
/// once: each object serves one thread at a time. For whoever is asked by many, such as a server; a
/// transfer reads with one object, and its workers do the rest.
class DiskReaders {
public:
    /// Opens the disk once more.
    using Open = std::function<std::unique_ptr<SafeDisk>()>;

    /// Begins with `first`. `open`, which opens the same disk again, is called whenever all objects
    /// are in use and there are fewer than `maxReaders`, by one thread at a time. If it throws, a
    /// warning is logged, and there will be no more objects than there are.
    DiskReaders(std::unique_ptr<SafeDisk> first, int maxReaders, Open open);
    DiskReaders(DiskReaders const&) = delete;
    DiskReaders& operator=(DiskReaders const&) = delete;

    /// Nobody may be reading.
    ~DiskReaders();

    /// From now on `read` and `isGrainWritten` need no object where `direct`, which is on the same
    /// disk, does it. For who opens the readers, before anybody reads.
    void useDirectReading(std::unique_ptr<DirectReading> direct) { m_direct = std::move(direct); }

    /// Reads as `readWithGrainPlace`. From any thread.
    void read(__int64 positionBytes, void* buffer, int bytes);

    /// As `SafeDisk::isGrainWritten`. From any thread.
    bool isGrainWritten(__int64 grainIndex);

    /// Calls `use` with an object that nobody else uses meanwhile, and returns what it returns.
    /// Waits until there is one. From any thread.
    template <class Use>
    auto use(Use const& use) {
        Lease const lease(*this);
        return use(lease.getDisk());
    }

private:
    class Lease {
    public:
        explicit Lease(DiskReaders& readers) : m_readers(readers), m_disk(readers.take()) {}
        Lease(Lease const&) = delete;
        Lease& operator=(Lease const&) = delete;
        ~Lease() { m_readers.giveBack(std::move(m_disk)); }

        SafeDisk& getDisk() const { return *m_disk; }

    private:
        DiskReaders& m_readers;
        std::unique_ptr<SafeDisk> m_disk;
    };

    std::unique_ptr<SafeDisk> take();
    std::unique_ptr<SafeDisk> openAnother(std::unique_lock<std::mutex>& lock);
    void giveBack(std::unique_ptr<SafeDisk> disk);

    /// Null where every read needs an object.
    std::unique_ptr<DirectReading> m_direct;

    Open m_open;
    std::mutex m_mutex;
    std::condition_variable m_isIdle;

    /// The one that was used last comes first: it has the tables and grains of what is near.
    std::vector<std::unique_ptr<SafeDisk>> m_idle;
    int m_maxReaders;
    int m_readerCount = 1;
    bool m_isOpening = false;
};

} // namespace kelm::host
