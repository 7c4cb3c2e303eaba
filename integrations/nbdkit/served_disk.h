#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <shared_mutex>
#include <vector>

#include "host/disk/safe_disk.h"
#include "host/system/derived_keys.h"
#include "host/system/password.h"
#include "host/transfer/direct_writing.h"
#include "host/transfer/disk_readers.h"

namespace kelm::nbd {

/// What the server's command line says about its disk.
struct DiskSettings {
    yx::CURI uri;
    host::Password password;

    /// Of parents that have another one; empty if there are none.
    host::Password parentPassword;

    /// Where derived keys stay. Never null once a disk is opened.
    host::DerivedKeys* keys = nullptr;

    /// The most grain tables to keep in memory, for all readers together. By default, a disk opened
    /// for writing keeps as many as `host::SafeDisk` lets it, and beside that 8192 for
    /// `host::DirectWriting`, and one opened for reading as many as the library does, and beside that
    /// 16384 merged ones (`host::ChainMap`).
    std::optional<int> maxCachedTables;

    /// How far the descriptors of the disk and its parents are believed. Unfinished disks are only
    /// ever opened for reading.
    host::DiskTrust trust;
};

/// Neighbouring bytes that are stored somewhere in the chain, or nowhere.
struct StoredRun {
    __int64 lengthBytes = 0;
    bool isStored = false;
};

/// The one disk of a server, which all connections share, and its parents: they are kept open too,
/// so that nobody changes them meanwhile. Errors are those of `host::SafeDisk`; while the disk is
/// not open, every request is `CIOError` `Closed`.
///
/// Serves any number of threads. Opened for reading, it reads straight from the places of grains
/// (`host::DirectReading`), as many requests at once as there are, and in the usual way as many as
/// the machine has cores; opened for writing, it answers one after the other, what is stored plain
/// straight at its place too (`host::DirectWriting`). Opening and closing wait for requests that are
/// under way.
class ServedDisk {
public:
    explicit ServedDisk(DiskSettings const& settings);
    ServedDisk(ServedDisk const&) = delete;
    ServedDisk& operator=(ServedDisk const&) = delete;
    ~ServedDisk() = default;

    /// Opens the disk and its parents, unless it is open with that access or more. A disk that is
    /// open for reading is closed and opened anew for writing; if that fails it is closed. A disk
    /// with damaged grain tables is refused; see `host::beginWholeReading`.
    void open(yx::IIOStream::Access access);

    /// Flushes and closes the disk; closed it is even if the flush fails. Does nothing on a disk
    /// that is not open.
    void close();

    bool isWritable() const;

    __int64 getSizeBytes();
    __int64 getGrainSizeBytes();

    /// Each does all of what is asked, or throws.
    void read(__int64 positionBytes, void* buffer, int bytes);
    void write(__int64 positionBytes, void const* buffer, int bytes);
    void writeZeros(__int64 positionBytes, __int64 bytes);

    /// Brings all changes to the device.
    void flush();

    /// Runs of alternating kind from `positionBytes` on, without gaps, at most `maxRuns`. They end
    /// after `bytes` bytes or earlier, since one call looks at no more than 16384 grains (1 GiB of
    /// the usual 64 KiB), but not before one grain's end.
    std::vector<StoredRun> listRuns(__int64 positionBytes, __int64 bytes, std::size_t maxRuns);

private:
    template <class Use>
    auto useDisk(Use const& use);
    template <class Use>
    auto useOpenDisk(Use const& use);
    template <class Use>
    void useWriting(Use const& use);
    void verifyIsOpen() const;
    bool isOpen() const { return m_disk || m_readers; }
    std::unique_ptr<host::SafeDisk> openOnce(yx::IIOStream::Access access, int shares) const;
    int countReaders(host::SafeDisk& disk) const;
    void closeOpened();

    DiskSettings m_settings;
    yx::P<yx::IFileSystem> m_fileSystem;

    /// Held by all requests, and by what opens and closes alone.
    mutable std::shared_mutex m_opening;

    /// Of the disk that was opened last.
    __int64 m_grainSizeBytes = 0;

    /// The disk that is written to, one request at a time.
    std::mutex m_writing;
    std::unique_ptr<host::SafeDisk> m_disk;

    /// The road to it; null together with it.
    std::unique_ptr<host::DirectWriting> m_direct;

    /// The disk that is read only.
    std::optional<host::DiskReaders> m_readers;
    std::vector<std::unique_ptr<host::SafeDisk>> m_parents;
};

} // namespace kelm::nbd
