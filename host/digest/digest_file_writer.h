#pragma once

#include <vector>

#include "host/digest/digest_header.h"
#include "yx/file_system.h"

namespace kelm::host {

/// Writes a digest file from its start to its end; see `DigestHeader` for the layout. Until
/// `finish` has ended, the file has no header, and readers take it for one that is not there.
/// Takes a megabyte of memory, and 56 bytes for each 16384 grains.
class DigestFileWriter {
public:
    /// Makes the file; one that is there is deleted before.
    DigestFileWriter(yx::IFileSystem* fileSystem, yx::CURI const& uri, DigestKeys const& keys);
    DigestFileWriter(DigestFileWriter const&) = delete;
    DigestFileWriter& operator=(DigestFileWriter const&) = delete;
    ~DigestFileWriter() = default;

    /// Adds the digest of a grain that the disk holds. Indexes rise from call to call.
    void add(__int64 grainIndex, Digest const& digest);

    /// Completes the file and brings it to the device. `header` says all about the disk; where the
    /// digests are is filled in here. Nothing else may be called then.
    void finish(DigestHeader header);

private:
    void closeSection();

    yx::P<yx::IIOStream> m_stream;
    yx::CURI m_uri;
    DigestKeys m_keys;
    DigestFileHasher m_hasher;
    __int64 m_position = DigestHeader::kSizeBytes;
    __int64 m_endGrainIndex = 0;

    /// The section that is being filled: its number, the grains in it and their digests.
    __int64 m_sectionNumber = 0;
    std::vector<int> m_grains;
    std::vector<Digest> m_digests;

    __int64 m_sectionCount = 0;
    __int64 m_grainCount = 0;
    std::vector<unsigned char> m_directory;
};

} // namespace kelm::host
