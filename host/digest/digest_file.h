#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "host/digest/digest_header.h"
#include "yx/file_system.h"

namespace kelm::host {

/// The digests of a disk, read from its digest file; see `DigestHeader` for the layout. Opening
/// reads and verifies the header and the directory, 56 bytes for each 16384 grains; sections are
/// read and verified when a grain of theirs is asked for, and one is kept. Whether the digests are
/// those of the disk as it is now is not looked at here: see `DiskDigests`. Serves one thread.
class DigestFile {
public:
    /// Opens the file. Null if it was not finished. A file that is not there is `CIOError`
    /// `NotFound`, one shorter than a header `CorruptData` "The file is no digest file." with
    /// "uri"; other errors are those of `DigestHeader::load`. A directory that does not fit its
    /// digest, or in which sections do not follow each other, is `CIOError` `CorruptData`.
    static std::unique_ptr<DigestFile> open(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                            DigestKeys const& keys);

    DigestFile(DigestFile const&) = delete;
    DigestFile& operator=(DigestFile const&) = delete;
    ~DigestFile() = default;

    /// What the file says about its disk.
    DigestHeader const& getHeader() const { return m_header; }

    /// The file.
    yx::CURI const& getURI() const { return m_uri; }

    /// The digest of a grain; nothing if the disk did not hold it. An index behind the end of the
    /// disk is held by none. A section that was damaged or changed is `CIOError` `CorruptData`, with
    /// "uri", also when it is asked for again.
    std::optional<Digest> find(__int64 grainIndex);

    /// The first grain from `grainIndex` on that has a digest; -1 if none has. Errors are those of
    /// `find`.
    __int64 findNext(__int64 grainIndex);

private:
    /// An entry of the directory.
    struct Section {
        __int64 number = 0;
        __int64 position = 0;
        int grainCount = 0;
        Digest digest{};
    };

    DigestFile(yx::P<yx::IIOStream> stream, DigestHeader const& header, DigestKeys const& keys);

    void readDirectory();
    void addSection(Section const& section);
    Section const* findSection(__int64 number) const;
    void loadSection(Section const& section);
    bool isSetInLoaded(int grainInSection) const;
    int countSetBefore(int grainInSection) const;

    yx::P<yx::IIOStream> m_stream;
    yx::CURI m_uri;
    DigestHeader m_header;
    DigestFileHasher m_hasher;
    std::vector<Section> m_sections;

    /// The section in memory, by its number; -1 for none.
    __int64 m_loadedNumber = -1;
    yx::TBuffer<unsigned char> m_loaded;

    /// How many digests come before each byte of the bitmap in memory.
    std::vector<int> m_countsBefore;
};

} // namespace kelm::host
