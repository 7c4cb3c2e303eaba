#pragma once

#include <string>

#include "host/digest/digest.h"
#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"

namespace kelm::host {

/// Makes the SHA-256 of an image that comes piece by piece: the one that common tools print.
class ImageHasher {
public:
    /// Takes the next bytes.
    void add(void const* data, int bytes);

    /// Takes so many zeros.
    void addZeros(__int64 bytes);

    /// Takes what a disk reads as, from where the pieces so far end up to `endBytes`. The disk is
    /// read in grains; an error has the place of its grain.
    void addFromDisk(SafeDisk& disk, __int64 endBytes, WorkOptions const& options);

    /// How many bytes have come.
    __int64 getBytes() const { return m_bytes; }

    /// Ends the image.
    Digest finish();

private:
    krym::CHasher_SHA256 m_hasher;
    __int64 m_bytes = 0;
};

/// One line that `sha256sum` prints for this digest of its standard input, with the end of the
/// line.
std::string formatImageDigest(Digest const& digest);

} // namespace kelm::host
