#pragma once

#include <cstddef>

#include "yx/export.h"

namespace yx {

/// Copies `sizeBytes` bytes; the ranges must not overlap. A size of 0 touches nothing.
YX_API void copyMemory(void* target, void const* source, std::size_t sizeBytes);

/// Fills `sizeBytes` bytes with `value`. It is never optimised away, so key material is gone when
/// it is cleared just before it is freed.
YX_API void initMemory(void* target, int value, std::size_t sizeBytes);

/// Whether all bytes are zero. Runs at memory speed; needs no alignment.
YX_API bool isAllZero(void const* data, std::size_t sizeBytes);

} // namespace yx
