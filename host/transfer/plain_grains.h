#pragma once

#include "host/disk/safe_disk.h"

namespace kelm::host {

/// How many bytes of a grain lie in the disk: all but in a last grain that is cut short.
int bytesInDisk(SafeDisk const& disk, __int64 grainIndex);

/// Of how much of a disk one look tells, so that whoever cancels waits for no more.
constexpr __int64 kMaxCountedBytes = __int64{1} << 30;

/// How many grains from `grainIndex` on, at most `maxGrains` and what lies in `kMaxCountedBytes`, are
/// known to be held by no disk of the chain, so that nobody need ask about each; see
/// `ChainGrains::countUnwrittenBytes`. 0 says nothing.
__int64 countUnwrittenGrains(SafeDisk& disk, __int64 grainIndex, __int64 maxGrains);

/// The same for grains that the disk's own files hold nothing of; see
/// `ChainGrains::countBytesNotHere`.
__int64 countGrainsNotHere(SafeDisk& disk, __int64 grainIndex, __int64 maxGrains);

/// Whether a plain grain is all zero.
bool isZeroGrain(yx::TBuffer<unsigned char> const& grain);

/// Sets the bytes from `beginBytes` up to `endBytes` to zero.
void fillWithZeros(yx::TBuffer<unsigned char>& grain, int beginBytes, int endBytes);

/// Reads a grain in its plain form. `grain` gets as many bytes as lie in the disk.
void readPlainGrain(SafeDisk& disk, __int64 grainIndex, yx::TBuffer<unsigned char>& grain);

/// Stores a grain that is given in its plain form and full size. A grain of zeros takes no space.
void storePlainGrain(SafeDisk& disk, __int64 grainIndex, yx::TBuffer<unsigned char> const& grain);

/// Makes a grain of the disk read as zeros. Takes no space where it does already.
void storeZeroGrain(SafeDisk& disk, __int64 grainIndex);

} // namespace kelm::host
