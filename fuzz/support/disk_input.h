#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/support/harness.h"
#include "yx/memory_file_system.h"

namespace kelm::fuzz {

/// A stretch of a file that is not all zero.
struct FileRun {
    std::uint32_t offsetBytes = 0;
    std::vector<std::uint8_t> bytes;
};

struct InputFile {
    std::uint8_t nameIndex = 0;
    std::uint32_t lengthBytes = 0;
    std::vector<FileRun> runs;
};

/// What the target fuzz_disk works on: files, most of them damaged ones of a disk and its parents,
/// and a script of operations. All numbers little-endian:
///
///     size  field
///     2     script length n
///     n     script
///     1     number of files, each:
///       1     name, an index for `getFileURI`
///       4     length of the file
///       2     number of runs, each:
///         4     offset in the file
///         2     length m
///         m     bytes
///
/// Zeros between the runs are not in the input, so that inputs stay small. No input is refused:
/// what is missing at its end counts as zeros.
struct DiskInput {
    std::vector<std::uint8_t> script;
    std::vector<InputFile> files;

    static DiskInput parse(Bytes bytes);

    /// What `parse` makes this of, but for what it cuts.
    std::vector<std::uint8_t> serialize() const;

    /// Adds a file of that content. A run is cut where at least `kMinGapBytes` zeros follow.
    void addFile(std::uint8_t nameIndex, yx::TBuffer<unsigned char> const& content);

    /// Puts all files in place.
    void putFiles(yx::CMemoryFileSystem& target) const;
};

/// Files are cut there, so that what a file claims by its mere length stays small.
constexpr std::uint32_t kMaxFileBytes = 1 << 20;

constexpr std::size_t kMaxFiles = 8;
constexpr std::size_t kMinGapBytes = 16;

/// The names that an input can give its files. The first is the disk that the script works on.
constexpr char const* kFileNames[] = {
    "disk.vmdk",        "disk-s001.vmdk",   "disk-s002.vmdk", "parent.vmdk",
    "parent-s001.vmdk", "grandparent.vmdk", "disk.vmdk.lock", "disk-s003.vmdk",
};

/// Every index names a file.
yx::CURI getFileURI(std::uint8_t nameIndex);

} // namespace kelm::fuzz
