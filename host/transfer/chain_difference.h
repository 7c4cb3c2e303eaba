#pragma once

#include <vector>

#include "host/disk/safe_disk.h"
#include "host/system/work_options.h"
#include "host/transfer/grain_set.h"

namespace kelm::host {

/// Whether a child that hangs on the first of `links` reads a range from `base`, under the last of
/// them, as if it hung there itself: none of the links holds anything of it, and each looks it up
/// at the same place of the next. By tables alone.
bool passAllOn(std::vector<SafeDisk*> const& links, SafeDisk& base, __int64 positionBytes,
               __int64 bytes);

/// How many bytes from a position on, at most `maxBytes`, are known to lie inside of all of `links`,
/// none of which holds anything of them; each looks them up at the same place of the next. 0 says
/// nothing.
__int64 countBytesPassedOn(std::vector<SafeDisk*> const& links, __int64 positionBytes,
                           __int64 maxBytes);

/// How many bytes from a position on, at most `maxBytes`, are known not to be `isWrittenInside`; 0
/// says nothing.
__int64 countUnwrittenInside(SafeDisk& disk, __int64 positionBytes, __int64 maxBytes);

/// The grains of a disk of which one of `links` holds something: the disk itself and parents of it,
/// the nearest first, without a gap. `base` is the parent of the last of them; null for none.
GrainSet findGrainsOfLinks(SafeDisk& disk, std::vector<SafeDisk*> const& links, SafeDisk* base,
                           CancelFlag const* cancel);

/// The grains of a disk that read otherwise than the same bytes of `base`, past whose end there are
/// zeros. Reads all that one of the two holds. Errors have the grain's place, as `addGrainPlace`
/// says.
GrainSet findDifferences(SafeDisk& disk, SafeDisk& base, WorkOptions const& options);

/// Reads what a disk has there, and zeros past its end, as a child of it does. Fills `buffer`.
void readAsParent(SafeDisk& disk, __int64 positionBytes, std::vector<unsigned char>& buffer);

/// Whether a disk holds anything of a range, which may reach past its end.
bool isWrittenInside(SafeDisk& disk, __int64 positionBytes, __int64 bytes);

} // namespace kelm::host
