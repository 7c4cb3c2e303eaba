#pragma once

#include <cstdint>

namespace test_support {

/// An operation that a program did on files, as tests/crash/preload/file_log.cpp writes it down:
/// this record, the path, and the bytes that were written.
struct FileLogRecord {
    enum class Kind : std::uint32_t {
        Make,       ///< a file, which got its first name, `path`
        Write,      ///< the content to `position`
        SetLength,  ///< to `position`
        SyncFile,   ///< the content of the file is on the device
        SyncFolder, ///< the names in the folder `path` are on the device
        Link,       ///< the file has got another name, `path`
        Remove,     ///< the name `path` of a file or an empty folder
        MakeFolder, ///< `path`
        Rename,     ///< the file has got the name `path` for the one in the content
    };

    Kind kind;

    /// The inode. It may be that of a later file once this one has no name and is closed.
    std::uint64_t file;
    std::int64_t position;
    std::uint64_t pathBytes;
    std::uint64_t contentBytes;
};

} // namespace test_support
