#pragma once

#include "kelm/export.h"
#include "krym/krym.h"
#include "yx/buffer.h"

namespace kelm {

/// Enciphers and deciphers prepared grains of an encrypted disk on other threads than the disk's.
/// What it makes is byte for byte what `CVMDKGrain` makes of the same prepared grain, since a
/// grain's initialization vector comes from its index in the disk, not from its place in a file.
///
/// A grain in enciphered form is what the file holds of it: for a disk of plain grains as many
/// bytes as a grain has, for a compressed one the record that `CVMDKDataPreparer` shows, with or
/// without the bytes behind it up to a sector's end. Each has to be enciphered for the very grain
/// that it is stored as, and nothing tells if it was not.
///
/// A cipher may be used by one thread at a time. Ciphers that are no copies of each other share
/// nothing.
class KELM_API CVMDKGrainCipher : public yx::CBase, public virtual yx::IBase {
public:
    /// For grains of this size and form, with a key and a base initialization vector as for
    /// `CVMDKGrain`; `cipher` is for this object alone. A grain size below 1 or above
    /// `CVMDKDataPreparer::kMaxGrainSizeSectors`, a cipher block size below 1 or above a sector and
    /// a vector that is shorter than a block are `yx::CInvalidArgError` at "CVMDKGrainCipher
    /// constructor".
    CVMDKGrainCipher(krym::ICipher* cipher, yx::TCryptBuffer<unsigned char> const& encryptionKey,
                     yx::TBuffer<unsigned char> const& encryptionIV, __int64 grainSizeSectors,
                     bool compressed);

    /// A copy shares the cipher, so it belongs to the same thread.
    CVMDKGrainCipher(CVMDKGrainCipher const&);
    CVMDKGrainCipher& operator=(CVMDKGrainCipher const&);

    ~CVMDKGrainCipher() override;

    /// Replaces the content of `target`, which is another buffer, by the enciphered form of a
    /// grain; `grainIndex` counts over the whole disk. Throws `yx::CIOError` `CorruptData` for a
    /// record too short for its header and for plain grains of any size but a whole one; and what
    /// the cipher throws, after which `target` is undefined.
    void encipher(yx::TBuffer<unsigned char> const& prepared, __int64 grainIndex,
                  yx::TBuffer<unsigned char>& target);

    /// The inverse. A record comes out with its padding of zeros to a sector's end. Throws
    /// `yx::CIOError` `CorruptData` for what `verifyIsEnciphered` refuses; and what the cipher
    /// throws, after which `target` is undefined. A wrong key or index is not noticed here.
    void decipher(yx::TBuffer<unsigned char> const& enciphered, __int64 grainIndex,
                  yx::TBuffer<unsigned char>& target);

    /// Throws `yx::CIOError` `CorruptData` unless the size of `data` is that of a grain in
    /// enciphered form, for a record by its header: `grainSizeBytes` bytes, or for a compressed
    /// grain at least all cipher blocks of the data.
    static void verifyIsEnciphered(yx::TBuffer<unsigned char> const& data, __int64 grainSizeBytes,
                                   bool compressed, int blockSizeBytes);

private:
    yx::P<krym::ICipher> m_cipher;
    yx::TCryptBuffer<unsigned char> m_encryptionKey;
    yx::TBuffer<unsigned char> m_encryptionIV;
    yx::TBuffer<unsigned char> m_grainIV;
    __int64 m_grainSizeBytes;
    bool m_compressed;
    int m_blockSizeBytes;
};

} // namespace kelm
