#pragma once

#include <functional>

#include "host/disk/safe_disk.h"
#include "yx/error.h"

namespace kelm::host {

/// Adds to an error where the grain lies that it came from: "uri", the file that holds the grain,
/// unless the error names a file already; "grain", its index in the disk; and "bytes", its first
/// and last byte in the disk, as "65536-131071". The disk's cursor moves.
///
/// For a grain of a parent, "uri" is the file of the nearest parent that holds it, or the nearest
/// parent's main file if the parents cannot be opened to find out.
void addGrainPlace(yx::CError& error, SafeDisk& disk, __int64 grainIndex);

/// `addGrainPlace` for the grains of `disk`, which must outlive the function. For
/// `GrainPipeline::run`.
std::function<void(yx::CIOError& error, __int64 grainIndex)> grainPlaceOf(SafeDisk& disk);

/// Runs a step that reads a grain. If that throws a `yx::CIOError`, the error gets the grain's
/// place by `addGrainPlace` on its way.
void withGrainPlace(SafeDisk& disk, __int64 grainIndex, std::function<void()> const& step);

/// Reads as `SafeDisk::read`. A `yx::CIOError` gets the place of the first grain of the range that
/// cannot be read.
void readWithGrainPlace(SafeDisk& disk, __int64 positionBytes, void* buffer, int bytes);

} // namespace kelm::host
