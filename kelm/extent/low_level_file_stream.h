#pragma once

#include "kelm/export.h"
#include "yx/file_system.h"
#include "yx/optimizing_io_stream.h"

namespace kelm {

/// The stream through which every file of a disk is reached: the framework's buffering layer in
/// front of a file, so that the code above need not care about system calls or alignment.
class KELM_API CVMDKLowLevelFileStream : public yx::COptimizingIOStream {
public:
    /// Opens `uri`; with `ReadWrite` access a missing file is made. Errors of
    /// `yx::IFileSystem::openFile` pass through.
    CVMDKLowLevelFileStream(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                            yx::IIOStream::Access access);

    /// Copies share the file, what is buffered, and the position; see `yx::COptimizingIOStream`.
    CVMDKLowLevelFileStream(CVMDKLowLevelFileStream const&);
    CVMDKLowLevelFileStream& operator=(CVMDKLowLevelFileStream const&);

    /// Writes back and closes; see `yx::COptimizingIOStream`.
    void close() override;
};

/// A new `CVMDKLowLevelFileStream`.
KELM_API yx::P<yx::IIOStream> openVMDKFileStream(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                                                 yx::IIOStream::Access access);

} // namespace kelm
