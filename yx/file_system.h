#pragma once

#include "yx/stream.h"

namespace yx {

/// The files that a disk lives on. A host may implement it; these three operations are all.
class YX_API IFileSystem : public virtual IBase {
public:
    /// Opens a file. With `ReadWrite` access it is made if it does not exist. A missing file is
    /// `CIOError` `NotFound`, a refused one `AccessDenied`, each with "uri". `reserved` points to a
    /// 0 and has no meaning yet.
    virtual P<IIOStream> openFile(CURI const& uri, IIOStream::Access access,
                                  unsigned int* reserved) = 0;

    /// Whether a file of that name is there.
    virtual bool fileExists(CURI const& uri) = 0;

    /// Deletes a file. With `ignoreMissing`, a file that is not there is no error; otherwise it is
    /// `CIOError` `NotFound`.
    virtual void deleteFile(CURI const& uri, bool ignoreMissing) = 0;
};

} // namespace yx
