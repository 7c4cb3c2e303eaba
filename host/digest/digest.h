#pragma once

#include <array>

#include "krym/hasher_sha256.h"

namespace kelm::host {

/// The digest of a grain or of a part of a digest file.
using Digest = std::array<unsigned char, krym::CHasher_SHA256::kHashSizeBytes>;

} // namespace kelm::host
