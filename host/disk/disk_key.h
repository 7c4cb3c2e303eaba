#pragma once

#include "kelm/kelm.h"

namespace kelm::host {

/// What turns a password into the key that wraps a disk's own.
struct KeyDerivationSettings {
    /// At least 8 bytes.
    yx::TBuffer<unsigned char> salt;

    /// At least 1000.
    __int64 rounds = 0;
};

/// What the descriptor of an encrypted disk says. A text that cannot be read is
/// `yx::CInvalidArgError` or the error of the number in it.
KeyDerivationSettings getKeyDerivation(CVMDKDescriptor const& descriptor);

/// 32 bytes that nobody can foresee, and these rounds.
KeyDerivationSettings drawKeyDerivation(__int64 rounds);

/// What the grains of a disk are deciphered with.
struct DiskKey {
    /// Null for a disk that is not encrypted; the rest is then empty.
    yx::P<krym::ICipher> cipher;

    /// The disk's key, and what the initial value of each grain is made of.
    yx::TCryptBuffer<unsigned char> key;
    yx::TBuffer<unsigned char> iv;

    /// What the descriptor has as the hash of the key; every extent's header has it too.
    yx::TBuffer<unsigned char> keyHash;
};

/// Unwraps the key of a disk by its descriptor alone, for who does not open the disk. Errors are
/// those of `CVMDKDisk`: a missing or wrong password is `kPasswordMissingMessage` or
/// `kPasswordWrongMessage` with "uri" of `mainFile`; values that cannot be right are `CIOError`
/// `CorruptData` "The encryption of the disk is damaged." with "uri".
DiskKey unwrapDiskKey(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                      yx::String const& password);

/// Wraps the key of the disk for another password: the wrapped key and what it takes to derive the
/// other one from the password are set, and everything else of the encryption stays, the data
/// included. The descriptor is that of an encrypted disk.
void wrapDiskKey(CVMDKDescriptor& descriptor, DiskKey const& diskKey, yx::String const& password,
                 KeyDerivationSettings const& derivation);

} // namespace kelm::host
