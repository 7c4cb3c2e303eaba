#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <new>
#include <string>
#include <utility>

#include "tests/soak/program/stamps.h"

namespace soak {

/// The smallest disk that can be made.
constexpr int kSectorCount = 16384;
constexpr int kGrainSectors = 128;
constexpr int kGrainCount = kSectorCount / kGrainSectors;

/// Processes that run at the same time, and in all in the life of a disk.
constexpr int kSlots = 3;
constexpr int kMaxProcesses = 4096;

struct PendingWrite {
    int firstSector;
    int sectorCount;
    Stamp stamp;

    bool covers(int sector) const {
        return sector >= firstSector && sector - firstSector < sectorCount;
    }
};

/// What was seen, over all disks.
struct Counts {
    std::atomic<long long> writerOpenings;
    std::atomic<long long> readerOpenings;
    std::atomic<long long> refusals;
    std::atomic<long long> writes;
    std::atomic<long long> flushes;
    std::atomic<long long> kills;
    std::atomic<long long> killedWriters;
    std::atomic<long long> sectorsCompared;
    std::atomic<long long> cleanChecks;
    std::atomic<long long> brokenOffRewrites;
};

/// What one disk should hold, and who uses it, in memory that all processes share and that outlives
/// every one of them. Zeros at first.
///
/// The disk's own lock guards the content: only a holder of the lock for writing changes it, only
/// holders of any lock read it. So a lock that two writers get is seen twice: by `writer`, and by
/// what they do to each other's content.
struct SharedModel {
    /// What the last flush made safe.
    std::array<Stamp, kSectorCount> flushed;

    /// The writes since, in their order. An entry is there before its write begins.
    std::array<PendingWrite, 2048> pending;
    std::atomic<int> pendingCount;
    std::atomic<Stamp> lastStamp;

    /// The number of the process that has the disk open for writing, 0 for none. A killed one
    /// stays.
    std::atomic<int> writer;
    std::array<std::atomic<int>, kSlots> readers;

    /// Set before the signal is sent.
    std::array<std::atomic<bool>, kMaxProcesses> killed;

    /// The last writer was interrupted; and whether any writer ever was.
    std::atomic<bool> isChanging;
    std::atomic<bool> wasBrokenOff;

    /// No further disk is to be opened.
    std::atomic<bool> isStopping;

    /// Makes the pending writes part of what is flushed.
    void settle();

    /// What a sector holds if all writes were done.
    Stamp expectedStamp(int sector) const;

    /// Whether a write since the last flush may have changed the grain.
    bool isGrainPending(int grain) const;

    /// The stamp of a sector after a writer was killed: of the last flush or any later write.
    /// Throws `Violation` if it is none of these.
    Stamp identify(unsigned char const* bytes, int sector) const;
};

/// A promise that was not kept.
class Violation {
public:
    explicit Violation(std::string text) : m_text(std::move(text)) {}
    std::string const& text() const { return m_text; }

private:
    std::string m_text;
};

/// Memory of zeros that is shared with all processes forked while it is there.
class SharedMemory {
public:
    explicit SharedMemory(std::size_t sizeBytes);
    SharedMemory(SharedMemory const&) = delete;
    SharedMemory& operator=(SharedMemory const&) = delete;
    ~SharedMemory();

    void* get() const { return m_memory; }

private:
    void* m_memory;
    std::size_t m_sizeBytes;
};

/// An object of zeros in such memory.
template <class T>
class Shared {
public:
    T& operator*() const { return *m_object; }

private:
    SharedMemory m_memory{sizeof(T)};
    T* m_object = new (m_memory.get()) T{};
};

} // namespace soak
