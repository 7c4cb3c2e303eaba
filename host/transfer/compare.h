#pragma once

#include <optional>

#include "host/transfer/transfer.h"

namespace kelm::host {

/// Content that is read from start to end for a comparison.
class ContentReader {
public:
    virtual ~ContentReader() = default;

    /// In bytes; -1 if nobody knows.
    virtual __int64 getLength() const = 0;

    /// Reads the next `bytes` bytes, fewer only at the end, and returns the count. `isZero` tells
    /// that all of them are zeros; `buffer` is then not touched.
    virtual int readNext(unsigned char* buffer, int bytes, bool& isZero) = 0;
};

/// The content of a disk. The disk must outlive the reader.
class DiskContentReader : public ContentReader {
public:
    /// Starts at the disk's first byte.
    explicit DiskContentReader(SafeDisk& disk) : m_disk(disk) {}

    __int64 getLength() const override { return m_disk.getSizeBytes(); }
    int readNext(unsigned char* buffer, int bytes, bool& isZero) override;

private:
    bool isNothingWritten(__int64 endBytes);

    SafeDisk& m_disk;
    __int64 m_positionBytes = 0;
};

/// The content of a raw image. The source must outlive the reader.
class RawContentReader : public ContentReader {
public:
    /// Goes on where the source stands.
    explicit RawContentReader(RawSource& source) : m_source(source) {}

    __int64 getLength() const override { return m_source.getLength(); }
    int readNext(unsigned char* buffer, int bytes, bool& isZero) override {
        return m_source.readNext(buffer, bytes, isZero);
    }

private:
    RawSource& m_source;
};

/// What a comparison found.
struct Comparison {
    /// Where the first byte differs, if one does.
    std::optional<__int64> firstDifferenceBytes;

    /// How many bytes differ. What one side has behind the end of the other counts where it is not
    /// zero, since disks are rounded up.
    __int64 differingBytes = 0;

    /// How many bytes were read of each side.
    __int64 leftBytes = 0;
    __int64 rightBytes = 0;

    /// Whether nothing differs.
    bool isEqual() const { return differingBytes == 0; }
};

/// Compares two contents to their ends.
Comparison compareContent(ContentReader& left, ContentReader& right, WorkOptions const& options);

} // namespace kelm::host
