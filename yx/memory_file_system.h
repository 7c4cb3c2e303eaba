#pragma once

#include <memory>

#include "yx/array.h"
#include "yx/file_system.h"

namespace yx {

/// Files in memory under any absolute URI, with the behaviour and the errors of
/// `CNativeFileSystem`: for tests and for hosts. A relative URI is `CIOError` `NotSupported`.
/// Spellings of a URI that are equal when normalised name one file. There are no folders to make; a
/// URI that ends in "/" names no file. Open streams keep a deleted or replaced file as it is for
/// them. Stretches of zeros that nobody wrote take no memory. Safe for several threads as far as
/// each stream has one user.
class YX_API CMemoryFileSystem : public CBase, public virtual IFileSystem {
public:
    /// No files.
    CMemoryFileSystem();
    CMemoryFileSystem(CMemoryFileSystem const&) = delete;
    CMemoryFileSystem& operator=(CMemoryFileSystem const&) = delete;
    ~CMemoryFileSystem() override;

    P<IIOStream> openFile(CURI const& uri, IIOStream::Access access,
                          unsigned int* options) override;
    bool fileExists(CURI const& uri) override;
    void deleteFile(CURI const& uri, bool ignoreMissing) override;

    /// Makes or replaces a file with a copy of `content`.
    void putFile(CURI const& uri, TBuffer<unsigned char> const& content);

    /// A copy of the content; a missing file is `CIOError` `NotFound`, one of 2 GiB and more
    /// `NoSpace`.
    TBuffer<unsigned char> getFile(CURI const& uri);

    /// The normalised URIs of all files, in URI order.
    TArray<CURI> listFiles();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace yx
