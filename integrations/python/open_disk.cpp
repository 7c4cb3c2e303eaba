#include "integrations/python/open_disk.h"

#include <algorithm>
#include <optional>

#include "host/disk/disk_record.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_names.h"
#include "host/transfer/disk_map.h"
#include "host/transfer/disk_space.h"
#include "host/transfer/grain_place.h"
#include "host/transfer/whole_reading.h"
#include "integrations/python/warnings.h"
#include "integrations/python/work.h"

namespace kelm::python {

namespace {

namespace py = pybind11;

/// What is read or written between two looks at signals.
constexpr __int64 kPartBytes = __int64{8} << 20;

constexpr int kDefaultLevel = -1;

/// A buffer of Python, which cannot change its size as long as this lives.
class HeldBuffer {
public:
    HeldBuffer(py::object const& object, int flags) {
        if (PyObject_GetBuffer(object.ptr(), &m_buffer, flags) != 0)
            throw py::error_already_set();
    }
    HeldBuffer(HeldBuffer const&) = delete;
    HeldBuffer& operator=(HeldBuffer const&) = delete;
    ~HeldBuffer() { PyBuffer_Release(&m_buffer); }

    Py_buffer const& get() const { return m_buffer; }

private:
    Py_buffer m_buffer{};
};

void verifyIsInside(__int64 positionBytes, __int64 bytes, __int64 sizeBytes) {
    if (positionBytes < 0 || bytes < 0 || positionBytes > sizeBytes ||
        bytes > sizeBytes - positionBytes)
        throw py::value_error("the range does not lie in the disk");
}

/// Nothing, too, for a value that cannot be right: what reads the content refuses it.
py::object tryGetImageBytes(host::DiskRecord const& record, __int64 sizeBytes) {
    try {
        return py::cast(record.getImageBytes(sizeBytes));
    } catch (yx::CIOError const&) {
        return py::none();
    }
}

} // namespace

/// Keeps other threads away from the disk. Made, and ended, with the interpreter's lock.
class OpenDisk::Use {
public:
    explicit Use(OpenDisk& disk) : m_disk(disk) {
        if (disk.m_user.load() == std::this_thread::get_id())
            throw std::runtime_error("the disk is in use by this very thread");
        {
            // Who has the disk may be waiting for the interpreter.
            py::gil_scoped_release const released;
            disk.m_mutex.lock();
        }
        disk.m_user.store(std::this_thread::get_id());
    }
    Use(Use const&) = delete;
    Use& operator=(Use const&) = delete;
    ~Use() {
        m_disk.m_user.store(std::thread::id());
        m_disk.m_mutex.unlock();
        deliverWarnings();
    }

private:
    OpenDisk& m_disk;
};

OpenDisk::OpenDisk(std::string const& path, bool isWritable, Access const& access)
    : m_access(access), m_isWritable(isWritable) {
    runWork(py::none(), 0, [&](host::WorkOptions const& options) {
        open(host::uriFromArgument(path), options.cancel);
    });
}

void OpenDisk::open(yx::CURI const& uri, host::CancelFlag const* cancel) {
    yx::String const& password = m_access.password.get();
    m_disk = std::make_unique<host::SafeDisk>(
        m_fileSystem.get(), uri, m_isWritable ? yx::IIOStream::ReadWrite : yx::IIOStream::ReadOnly,
        password, kDefaultLevel, CVMDKGrainTableCache::kDefaultLimit, m_access.trust);
    m_parents = host::openParents(m_fileSystem.get(), *m_disk, password);
    host::beginWholeReading(*m_disk, cancel);
    m_sizeBytes = m_disk->getSizeBytes();
}

host::SafeDisk& OpenDisk::getDisk() const {
    if (!m_disk)
        throw py::value_error("I/O operation on closed disk.");
    return *m_disk;
}

void OpenDisk::close() {
    Use const use(*this);
    std::vector<std::unique_ptr<host::SafeDisk>> const parents = std::move(m_parents);
    std::unique_ptr<host::SafeDisk> closing = std::move(m_disk);
    if (!closing)
        return;
    m_isClosed = true;
    m_access.password = {};
    py::gil_scoped_release const released;
    if (m_isWritable)
        closing->flush();
    closing.reset();
    m_keys.reset();
}

template <class UsePart>
void OpenDisk::forEachPart(__int64 positionBytes, Py_buffer const& buffer, UsePart const& use) {
    auto* const data = static_cast<unsigned char*>(buffer.buf);
    for (__int64 done = 0; done < buffer.len; done += kPartBytes) {
        auto const bytes = static_cast<int>(std::min(kPartBytes, __int64{buffer.len} - done));
        {
            py::gil_scoped_release const released;
            use(positionBytes + done, data + done, bytes);
        }
        if (PyErr_CheckSignals() != 0)
            throw py::error_already_set();
    }
}

void OpenDisk::read(__int64 positionBytes, py::object const& buffer) {
    HeldBuffer const held(buffer, PyBUF_WRITABLE | PyBUF_C_CONTIGUOUS);
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    verifyIsInside(positionBytes, held.get().len, m_sizeBytes);
    forEachPart(positionBytes, held.get(), [&disk](__int64 position, void* data, int bytes) {
        host::readWithGrainPlace(disk, position, data, bytes);
    });
}

void OpenDisk::write(__int64 positionBytes, py::object const& buffer) {
    HeldBuffer const held(buffer, PyBUF_C_CONTIGUOUS);
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    verifyIsInside(positionBytes, held.get().len, m_sizeBytes);
    forEachPart(positionBytes, held.get(), [&disk](__int64 position, void const* data, int bytes) {
        disk.write(position, data, bytes);
    });
}

void OpenDisk::writeZeros(__int64 positionBytes, __int64 bytes) {
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    verifyIsInside(positionBytes, bytes, m_sizeBytes);
    runWork(py::none(), 0,
            [&](host::WorkOptions const&) { disk.writeZeros(positionBytes, bytes); });
}

void OpenDisk::flush() {
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    if (!m_isWritable)
        return;
    py::gil_scoped_release const released;
    disk.flush();
}

py::object OpenDisk::getParentPath() {
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    return disk.hasParent() ? py::object(toText(disk.getDisk().getParentDiskMainURI()))
                            : py::object(py::none());
}

std::shared_ptr<OpenDisk> OpenDisk::openParent() {
    std::string path;
    Access access;
    {
        Use const inUse(*this);
        path = getDisk().getDisk().getParentDiskMainURI().toString(true).toStdString();
        access = m_access;
        access.trust = m_access.trust.ofParents();
    }
    return std::make_shared<OpenDisk>(path, false, access);
}

py::dict OpenDisk::describe() {
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    CVMDKDescriptor& descriptor = *disk.getDisk().getDescriptor();
    host::DiskRecord const record(descriptor);
    py::dict info;
    info["path"] = toText(disk.getDisk().getMainFileURI());
    info["kind"] = toText(descriptor.getCreateType().toStdString());
    info["size"] = disk.getSizeBytes();
    info["image_size"] = tryGetImageBytes(record, disk.getSizeBytes());
    info["grain_size"] = disk.getGrainSizeBytes();
    info["compressed"] = disk.getDisk().getCompressed();
    info["encrypted"] = descriptor.isEncrypted();
    info["on_demand"] = disk.createsExtentFilesOnDemand();
    info["unfinished"] = record.getState() == host::DiskState::Unfinished;
    info["content_id"] = descriptor.getContentID();
    info["parent"] = disk.hasParent() ? py::object(toText(disk.getDisk().getParentDiskMainURI()))
                                      : py::object(py::none());
    info["files"] = toTexts(disk.listFiles());
    info["time"] = toTextOrNone(record.getTime());
    info["source"] = toTextOrNone(record.getSource());
    info["host"] = toTextOrNone(record.getHost());
    info["label"] = toTextOrNone(record.getLabel());
    return info;
}

py::dict OpenDisk::measureSpace() {
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    std::optional<CVMDKSpaceInfo> space;
    runWork(py::none(), 0, [&](host::WorkOptions const& options) {
        if (m_isWritable)
            disk.flush();
        space = host::gatherSpace(disk, options);
    });
    py::dict result;
    result["payload_bytes"] = space->getPayloadSize();
    result["payload_bytes_in_file"] = space->getPayloadSizeInFile();
    result["header_bytes"] = space->getHeaderSize();
    result["dead_bytes"] = space->getDeadSpaceSize();
    return result;
}

py::list OpenDisk::listExtents() {
    Use const inUse(*this);
    host::SafeDisk& disk = getDisk();
    std::vector<host::GrainRun> runs;
    runWork(py::none(), 0, [&](host::WorkOptions const& options) {
        host::forEachGrainRun(disk, options,
                              [&runs](host::GrainRun const& run) { runs.push_back(run); });
    });
    py::list extents;
    for (host::GrainRun const& run : runs) {
        extents.append(py::make_tuple(run.startBytes, run.lengthBytes, host::nameOf(run.place)));
    }
    return extents;
}

} // namespace kelm::python
