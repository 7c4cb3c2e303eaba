#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/check/block_reader.h"
#include "host/check/extent_findings.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/stream.h"

namespace kelm::host {

/// Reads the file of an extent for its check: what cannot be read becomes a finding, not an error.
/// Nobody changes the file meanwhile.
class ExtentReader {
public:
    /// What is read from the file.
    using Bytes = std::vector<unsigned char>;

    /// `stream` and `findings` must outlive the object.
    ExtentReader(yx::IIOStream& stream, ExtentFindings const& findings)
        : m_stream(stream), m_blocks(stream), m_findings(findings) {}

    /// Reads the length of the file and its header. This comes before all other calls. Returns
    /// false, with a finding, if that fails.
    bool tryReadHeader(CVMDKSparseExtentHeader& header);

    /// The length of the file; 0 before `tryReadHeader`.
    __int64 getSizeBytes() const { return m_sizeBytes; }

    /// The whole sectors of the file.
    __int64 getSizeSectors() const { return m_sizeSectors; }

    /// Whether `bytes` bytes from a sector on lie in the file. Sector 0 is the header and holds
    /// nothing else, so it counts as outside.
    bool contains(__int64 sector, __int64 bytes) const;

    /// Reads `bytes` bytes that the file contains, or the header at sector 0. Nothing, with a
    /// finding that begins with `name`, if that fails.
    std::optional<Bytes> tryRead(__int64 sector, __int64 bytes, std::string const& name);

    /// As above, with a finding about `thing`.
    std::optional<Bytes> tryRead(__int64 sector, __int64 bytes, std::string const& name,
                                 CheckedThing const& thing);

    /// As `tryRead`, from any position and with errors as they are.
    Bytes read(__int64 positionBytes, __int64 bytes);

private:
    /// Reads into `data`. Returns why that failed.
    std::optional<std::string> findFailure(__int64 sector, __int64 bytes, Bytes& data);

    yx::IIOStream& m_stream;
    BlockReader m_blocks;
    ExtentFindings const& m_findings;
    __int64 m_sizeBytes = 0;
    __int64 m_sizeSectors = 0;
};

} // namespace kelm::host
