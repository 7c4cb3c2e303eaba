#pragma once

#include <memory>
#include <string>

#include "host/content/free_space.h"
#include "host/system/cancel.h"
#include "host/system/file_descriptor.h"

namespace kelm::host {

/// A raw image that is read from start to end: a file, a block device, or a pipe. Holes that the
/// system tells of are not read. Not for disks, nor for reading back and forth. Errors are
/// `yx::CIOError` with the path under "path".
class RawSource {
public:
    /// "-" is standard input, from its current position. While a pipe has nothing to read, `cancel`
    /// is checked several times a second; it may be null and must outlive the source.
    explicit RawSource(std::string const& path, CancelFlag const* cancel = nullptr);

    /// In bytes; -1 for a pipe.
    __int64 getLength() const { return m_endBytes < 0 ? -1 : m_endBytes - m_startBytes; }

    /// How many bytes have been read.
    __int64 getPosition() const { return m_positionBytes - m_startBytes; }

    /// How many bytes from here on are a hole of the file; 0 of a pipe, at the end, and where nobody
    /// knows of holes.
    __int64 findHoleBytes();

    /// Goes on at a later position, up to the length. Not for a pipe.
    void skipTo(__int64 positionBytes);

    /// Bytes that are free read as zeros from now on, as holes where they fill a step. `space` must
    /// outlive the source, and count from the beginning of the file. Not for a pipe.
    void excludeFree(FreeSpace const& space);

    /// How many bytes read as zeros only since they are free.
    __int64 getExcludedBytes() const { return m_excludedBytes; }

    /// Reads the next `capacityBytes` bytes, at least one, fewer only at the end, and returns the
    /// count, 0 at the end. `isHole` becomes whether all of them are zeros that are stored nowhere;
    /// `buffer` is then not touched. A file that became shorter meanwhile is `UnexpectedEnd`.
    int readNext(unsigned char* buffer, int capacityBytes, bool& isHole);

private:
    void findData();
    bool isInHole(__int64 endBytes);
    bool isFree(__int64 endBytes) const;
    void clearFree(unsigned char* buffer, int bytes);
    int readFromFile(unsigned char* buffer, int bytes);
    int readFromPipe(unsigned char* buffer, int bytes);

    std::string m_path;
    CancelFlag const* m_cancel;
    FileDescriptor m_file;
    FreeSpace const* m_freeSpace = nullptr;
    __int64 m_excludedBytes = 0;

    // Positions in the file; the end is -1 for a pipe.
    __int64 m_startBytes = 0;
    __int64 m_endBytes = -1;
    __int64 m_positionBytes = 0;
    bool m_mayHaveHoles = false;

    // The next stretch of data at or behind the position, as far as it is known.
    __int64 m_dataStartBytes = 0;
    __int64 m_dataEndBytes = 0;
};

} // namespace kelm::host
