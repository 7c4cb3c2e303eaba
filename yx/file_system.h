#pragma once

#include "yx/stream.h"

namespace yx {

/// The files that a disk lives on. A host may implement it; these three operations are all.
class YX_API IFileSystem : public virtual IBase {
public:
    /// What `openFile` can be asked for beyond the access. Values can be added up.
    enum OpenOption : unsigned int {
        /// A symbolic link as the last component of the name is not followed, also where nothing is
        /// at its end: it is `CIOError` `NotAllowed` with "uri". A file system without links, or
        /// one that does not know the option, ignores it.
        DoNotFollowLink = 1,

        /// A file that is not there is not made: it is `CIOError` `NotFound` with "uri" for
        /// `ReadWrite` access too. A file system that does not know the option ignores it.
        DoNotMakeFile = 2,
    };

    /// Opens a file. With `ReadWrite` access it is made if it does not exist. A missing file is
    /// `CIOError` `NotFound`, a refused one `AccessDenied`, each with "uri". `options`, which may
    /// be null, points to the sum of `OpenOption` values that are asked for, mostly 0. A file
    /// system that wraps another one passes it on.
    virtual P<IIOStream> openFile(CURI const& uri, IIOStream::Access access,
                                  unsigned int* options) = 0;

    /// Whether a file of that name is there.
    virtual bool fileExists(CURI const& uri) = 0;

    /// Deletes a file. With `ignoreMissing`, a file that is not there is no error; otherwise it is
    /// `CIOError` `NotFound`.
    virtual void deleteFile(CURI const& uri, bool ignoreMissing) = 0;
};

} // namespace yx
