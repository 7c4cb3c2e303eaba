#pragma once

#include "yx/file_system.h"

namespace yx
{

/// How far `flush` on a native stream goes.
enum class NativeFlush
{
    ToDevice, ///< returns when the data is on the device
    ToSystem, ///< leaves syncing to the host; nothing needs to be done
};

/// Files of the operating system, named by `file:` URIs. Its streams use positioned reads and
/// writes that restart after interruption and finish short transfers; they do not buffer. Errors
/// carry "uri" and the operating system's words. The folder entry of a new file is synced at the
/// first flush.
class YX_API CNativeFileSystem : public CBase, public virtual IFileSystem
{
public:
    explicit CNativeFileSystem(NativeFlush flush = NativeFlush::ToDevice);

    P<IIOStream> openFile(CURI const& uri, IIOStream::Access access,
                          unsigned int* reserved) override;
    bool fileExists(CURI const& uri) override;
    void deleteFile(CURI const& uri, bool ignoreMissing) override;

private:
    NativeFlush m_flush;
};

} // namespace yx
