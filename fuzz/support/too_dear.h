#pragma once

#include "yx/memory_file_system.h"

namespace kelm::fuzz {

/// Whether to open a disk of these files could cost more than a run of the fuzzer can pay, though
/// the format allows it: grains of more than 512 KiB, or a key that takes more than 9999 rounds to
/// derive. Both are judged by the bytes alone, so an input that is no disk may be skipped too.
bool areTooDear(yx::CMemoryFileSystem& files);

} // namespace kelm::fuzz
