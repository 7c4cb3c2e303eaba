#pragma once

#include <optional>

#include "host/digest/digest.h"
#include "host/digest/digest_keys.h"
#include "host/disk/digest_file_name.h"
#include "yx/uri.h"

namespace kelm::host {

/// The layout of a digest file. Numbers are unsigned, the lowest byte first.
///
///     header                 512 bytes at the start
///     section, section, ...  one for each run of 16384 grains of which the disk holds any, in order
///     directory              an entry for each section; ends with the file
///
/// The header:
///
///     offset  size
///          0     8  magic: "KELMDGST"
///          8     4  version: 1
///         12     4  algorithm: 1 for SHA-256, 2 for HMAC-SHA-256
///         16     8  size of the disk in bytes
///         24     8  size of the image that the disk stands for, in bytes
///         32     4  size of a grain in bytes
///         36     4  content ID of the disk
///         40     4  flags: 1 if there is a digest of the image
///         44     4  grains of a section: 16384
///         48     8  number of sections
///         56     8  position of the directory
///         64     8  number of grains that have digests
///         72     8  zeros
///         80    16  salt: random where it hides the digest of the image, else zeros
///         96    32  digest of the image, or zeros
///        128    32  digest of the directory
///        160   320  zeros
///        480    32  root: the digest of the 480 bytes before it
///
/// A section:
///
///          0  2048  a bit for each of its grains, the lowest bit of the first byte for the first:
///                   whether the disk itself holds that grain
///       2048        the digests of those grains, 32 bytes each, in order
///
/// An entry of the directory:
///
///          0     8  number of the section: index of its first grain / 16384; rises from entry to
///                   entry
///          8     8  position of the section: where the one before it ends, 512 for the first
///         16     4  number of its digests, at least 1
///         20     4  zeros
///         24    32  digest of the section
///
/// The digest of a grain is that of its content as it reads, without compression and enciphering,
/// of as many bytes as lie in the disk. What the disk does not hold has none: it reads as zeros, or
/// as its parent's. A grain of zeros that is stored has one like any other.
///
/// Of an encrypted disk all digests are HMACs; see `DigestKeys` and `GrainHasher`. That of the image
/// is the SHA-256 that common tools print, and in an encrypted disk's file it is combined by
/// exclusive or with the HMAC of the salt under a key for that alone.
///
/// A file whose first 512 bytes are zeros, or that is empty, was being written when that was ended.
struct DigestHeader {
    /// The sizes of the parts.
    static constexpr int kSizeBytes = kDigestFileHeaderBytes;
    static constexpr int kSectionGrains = 16384;
    static constexpr int kSectionBitmapBytes = kSectionGrains / 8;
    static constexpr int kDirectoryEntryBytes = 56;

    /// What it says about the disk.
    __int64 diskSizeBytes = 0;
    __int64 imageSizeBytes = 0;
    int grainSizeBytes = 0;
    unsigned int contentID = 0;

    /// The SHA-256 of the image, if it is known.
    std::optional<Digest> imageDigest;

    /// Where the digests are.
    __int64 sectionCount = 0;
    __int64 directoryPosition = 0;
    __int64 grainCount = 0;
    Digest directoryDigest{};

    /// Writes `kSizeBytes` bytes to `target`, with a new salt where there is to be one.
    void store(unsigned char* target, DigestKeys const& keys) const;

    /// Reads the header from `kSizeBytes` bytes. Nothing if the file was not finished. `fileBytes`
    /// is the length of the file.
    ///
    /// What is wrong is `CIOError` with "uri" and a message that names the field and its value:
    /// another version or algorithm `UnsupportedVersion`, all else `CorruptData`. An algorithm that
    /// is not that of `keys` is `CorruptData` too, and so is a root that does not fit, which is "The
    /// digest file does not fit its root: it was damaged or changed.". With a key, nobody who does
    /// not know that can have made the root.
    static std::optional<DigestHeader> load(unsigned char const* source, __int64 fileBytes,
                                            DigestKeys const& keys, yx::CURI const& uri);

    /// How many grains the disk has.
    __int64 getDiskGrainCount() const {
        return diskSizeBytes / grainSizeBytes + (diskSizeBytes % grainSizeBytes == 0 ? 0 : 1);
    }

private:
    void verify(__int64 fileBytes, yx::CURI const& uri) const;
};

/// Throws `CIOError` `CorruptData`: "Invalid `field` in digest file: `value`" with "uri".
[[noreturn]] void throwBadDigestField(char const* field, __int64 value, yx::CURI const& uri);

} // namespace kelm::host
