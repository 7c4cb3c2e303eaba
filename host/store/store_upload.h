#pragma once

#include <functional>

#include "yx/uri.h"

namespace kelm::host {

/// What is to be uploaded, and who is told of it.
struct Upload {
    /// The length of the whole file.
    __int64 lengthBytes = 0;

    /// Reads exactly `sizeBytes` bytes at `positionBytes` into `target`. Called by one thread at a
    /// time, which may be another one than the caller's, from the start to the end. What it throws
    /// ends the upload and reaches the caller.
    std::function<void(__int64 positionBytes, void* target, int sizeBytes)> read;

    /// Whether a file of that name is replaced.
    bool replacesExisting = false;

    /// Told how many bytes the store has, on the caller's thread, each time they are more; may be
    /// empty.
    std::function<void(__int64 doneBytes, __int64 totalBytes)> progress;

    /// Asked several times a second on the caller's thread; what it throws ends the upload and
    /// reaches the caller. `CancelFlag::check` does. May be empty.
    std::function<void()> check;
};

/// A store that takes whole files, though it may refuse to change them by streams. A host asks an
/// `IStore` for it by `dynamic_cast`.
class IStoreUpload {
public:
    virtual ~IStoreUpload() = default;

    /// Makes a file of what `upload` delivers. It is there as a whole or not at all, whatever
    /// fails; what was sent by then is taken away again, as far as the store can be reached.
    ///
    /// Unless it is to be replaced, a file that is there, also one that somebody else has made in
    /// the meantime, stays and is `yx::CIOError` `AlreadyExists` "The file exists already." Other
    /// errors are those of the store, with "uri".
    virtual void uploadFile(yx::CURI const& uri, Upload const& upload) = 0;

protected:
    IStoreUpload() = default;
    IStoreUpload(IStoreUpload const&) = default;
    IStoreUpload& operator=(IStoreUpload const&) = default;
};

} // namespace kelm::host
