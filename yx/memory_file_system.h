#pragma once

#include <memory>

#include "yx/array.h"
#include "yx/file_system.h"

namespace yx {

/// Files in memory under any absolute URI, with the behaviour of `CNativeFileSystem`: for tests and
/// for hosts. Spellings of a URI that are equal when normalised name one file. Safe for several
/// threads as far as each stream has one user.
class YX_API CMemoryFileSystem : public CBase, public virtual IFileSystem {
public:
    CMemoryFileSystem();
    ~CMemoryFileSystem() override;

    P<IIOStream> openFile(CURI const& uri, IIOStream::Access access,
                          unsigned int* reserved) override;
    bool fileExists(CURI const& uri) override;
    void deleteFile(CURI const& uri, bool ignoreMissing) override;

    /// Makes or replaces a file. Open streams of a replaced file keep the old content.
    void putFile(CURI const& uri, TBuffer<unsigned char> const& content);

    /// A copy of the content; a missing file is `CIOError` `NotFound`.
    TBuffer<unsigned char> getFile(CURI const& uri);

    /// The URIs of all files, in URI order.
    TArray<CURI> listFiles();

private:
    struct State;
    std::shared_ptr<State> m_state;
};

} // namespace yx
