#pragma once

#include "krym/export.h"
#include "yx/buffer.h"
#include "yx/string.h"

namespace krym {

/// A block cipher. Sizes are in bytes.
///
/// Each call starts a new chain from the initialization vector that it is given: nothing carries
/// over from one call to the next. An object serves one thread at a time.
class KRYM_API ICipher : public virtual yx::IBase {
public:
    /// The cipher's name, as it is stored beside what it enciphered.
    virtual yx::String getID() = 0;

    /// The size of the key.
    virtual int getKeySize() = 0;

    /// The size of the initialization vector.
    virtual int getIVSize() = 0;

    /// The size of the blocks that are enciphered as one.
    virtual int getBlockSize() = 0;

    /// Enciphers `sizeBytes` bytes of `source` with `key` and `iv`, which holds `getIVSize()`
    /// bytes.
    ///
    /// The result replaces the content of `target`, or with `append` goes behind its used size; the
    /// used size is set either way. The result is as long as the source rounded up to whole blocks:
    /// a partial last block is filled with zeros first, and no padding block is ever added.
    /// `source` must not overlap the storage of `target`.
    virtual void encrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source,
                         int sizeBytes, yx::TBuffer<unsigned char>& target, bool append,
                         unsigned char const* iv) = 0;

    /// The inverse. `sizeBytes` must be a whole number of blocks, and all of them come out; whoever
    /// had a partial block filled with zeros has to know where the data ended. A wrong key is not
    /// noticed here.
    virtual void decrypt(yx::TCryptBuffer<unsigned char> const& key, void const* source,
                         int sizeBytes, yx::TBuffer<unsigned char>& target, bool append,
                         unsigned char const* iv) = 0;
};

} // namespace krym
