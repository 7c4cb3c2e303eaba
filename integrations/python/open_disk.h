#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include <pybind11/pybind11.h>

#include "host/disk/safe_disk.h"
#include "host/store/file_systems.h"
#include "integrations/python/conversions.h"
#include "integrations/python/key_scope.h"

namespace kelm::python {

/// An open disk and its parents, which nobody can change meanwhile. Any thread may call any
/// function, with the interpreter's lock; each waits, without that lock, until the disk is free. A
/// call from a callback or a signal handler that runs inside of another call of the same thread is
/// RuntimeError, and every call on a closed disk is ValueError.
class OpenDisk {
public:
    /// Opens a disk that exists, by `runWork`. One with damaged grain tables is refused; see
    /// `host::beginWholeReading`.
    OpenDisk(std::string const& path, bool isWritable, Access const& access);
    OpenDisk(OpenDisk const&) = delete;
    OpenDisk& operator=(OpenDisk const&) = delete;
    ~OpenDisk() = default;

    /// Flushes and closes the disk, which is closed even if the flush fails. Does nothing on a
    /// closed one.
    void close();

    bool isClosed() const { return m_isClosed; }
    bool isWritable() const { return m_isWritable; }
    __int64 getSizeBytes() const { return m_sizeBytes; }

    /// Fills a writable buffer, or writes a whole one; the range lies in the disk.
    void read(__int64 positionBytes, pybind11::object const& buffer);
    void write(__int64 positionBytes, pybind11::object const& buffer);

    /// Makes the range read as zeros.
    void writeZeros(__int64 positionBytes, __int64 bytes);

    void flush();

    /// The main file of the parent; None without one.
    pybind11::object getParentPath();

    /// Opens the parent of a disk that has one, for reading, with the same password.
    std::shared_ptr<OpenDisk> openParent();

    /// The fields of `kelm.Info` and `kelm.Space`, by their names.
    pybind11::dict describe();
    pybind11::dict measureSpace();

    /// Tuples of start, length and place, in order and without gaps.
    pybind11::list listExtents();

private:
    class Use;

    /// Calls `use(position, data, bytes)` for part after part of a buffer, without the
    /// interpreter's lock, and handles signals in between.
    template <class UsePart>
    void forEachPart(__int64 positionBytes, Py_buffer const& buffer, UsePart const& use);

    void open(yx::CURI const& uri, host::CancelFlag const* cancel);
    host::SafeDisk& getDisk() const;

    std::optional<KeyScope> m_keys{std::in_place};
    yx::P<host::FileSystems> m_fileSystem = yx::makeObject<host::FileSystems>();
    Access m_access;
    bool m_isWritable;
    __int64 m_sizeBytes = 0;

    std::mutex m_mutex;
    std::atomic<std::thread::id> m_user{};
    std::atomic<bool> m_isClosed{false};
    std::vector<std::unique_ptr<host::SafeDisk>> m_parents;
    std::unique_ptr<host::SafeDisk> m_disk;
};

} // namespace kelm::python
