#pragma once

#include "yx/file_system.h"

namespace yx {

/// How far `flush` on a native stream goes.
enum class NativeFlush {
    ToDevice, ///< returns when the data is on the device
    ToSystem, ///< leaves syncing to the host; nothing needs to be done
};

/// Files of the operating system, named by `file:` URIs; a relative reference starts at the current
/// directory, and any other URI is `CIOError` `NotSupported`. Files and block devices can be
/// opened; folders are `AccessDenied`, pipes and sockets `NotSupported`. `fileExists` is false for
/// a folder.
///
/// Its streams use positioned reads and writes that restart after interruption and finish short
/// transfers; they do not buffer. `flush` with `NativeFlush::ToDevice` returns when all that was
/// written through the stream is on the device; the first one also syncs the file's entry in its
/// folder. A sync that fails is final for the stream, since the operating system may have dropped
/// what it could not write: every later `flush` fails, too, and what was written is to be written
/// again through a new stream.
///
/// Errors have a message that ends in the operating system's words, and carry "uri", a transfer
/// "position" and "bytesToRead" or "bytesToWrite", a change of length "length", and a lock
/// "position" and "length". A full device, an exceeded quota and a file too long for its file
/// system are `NoSpace`; what the system refuses is `AccessDenied`; a change through a stream that
/// is open for reading is `NotAllowed`.
class YX_API CNativeFileSystem : public CBase, public virtual IFileSystem {
public:
    /// `flush` is for all streams that it makes.
    explicit CNativeFileSystem(NativeFlush flush = NativeFlush::ToDevice);

    P<IIOStream> openFile(CURI const& uri, IIOStream::Access access,
                          unsigned int* options) override;
    bool fileExists(CURI const& uri) override;
    void deleteFile(CURI const& uri, bool ignoreMissing) override;

private:
    NativeFlush m_flush;
};

} // namespace yx
