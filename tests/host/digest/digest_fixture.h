#pragma once

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/sha.h>

#include "host/digest/digest_file.h"
#include "host/digest/digest_file_writer.h"
#include "tests/support/disk_fixture.h"
#include "tests/support/grain_contents.h"

namespace test_support {

// Digests of OpenSSL, called directly.

inline Bytes sha256Of(Bytes const& data) {
    Bytes hash(32);
    SHA256(data.data(), data.size(), hash.data());
    return hash;
}

inline Bytes hmacOf(Bytes const& key, Bytes const& data) {
    Bytes hash(32);
    unsigned int size = 0;
    HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), data.data(), data.size(),
         hash.data(), &size);
    EXPECT_EQ(size, 32U);
    return hash;
}

inline Bytes toBytes(kelm::host::Digest const& digest) {
    return {digest.begin(), digest.end()};
}

/// A digest of 32 equal bytes.
inline kelm::host::Digest digestOf(unsigned char byte) {
    kelm::host::Digest digest;
    digest.fill(byte);
    return digest;
}

/// Keys as those of an encrypted disk, but known.
inline kelm::host::DigestKeys knownKeys() {
    kelm::host::DigestKeys keys;
    keys.isKeyed = true;
    keys.grainKey.assign(toBuffer(Bytes(32, 'g')));
    keys.fileKey.assign(toBuffer(Bytes(32, 'f')));
    keys.imageKey.assign(toBuffer(Bytes(32, 'i')));
    return keys;
}

} // namespace test_support
