#pragma once

#include <vector>

#include "host/disk/descriptor_edit.h"
#include "kelm/format/descriptor.h"
#include "yx/uri.h"

namespace kelm::host {

/// How to give the descriptor inside a disk another wrapping of the disk's key, of which it has the
/// only copy. Returns what its area is to hold in turn; each state is to be on the device before
/// the next one is begun. While one is written a power cut may leave any of its sectors old and the
/// others new: at every moment the descriptor has the whole of one wrapping, the old or the new
/// one.
///
/// The three lines of a wrapping (how the key is derived, the salt, the wrapped key) change by a
/// write of one sector. Where they lie in two, or would not fit, they first get a place of their
/// own behind the text:
///
///     # blanks up to the next sector
///     yxEncKeyDerivAlg=...        the same values again; of equal keys the first one counts
///     yxEncKeyDerivSalt=...
///     yxEncEncKey=...
///
/// then the old lines become comments ("#xEncEncKey=..."), then the new ones change, and then the
/// comments become blanks, so that the old wrapping is gone. A checksum that is valid is hidden
/// meanwhile, as "ddb.kelm.checksu-". The states that an ended attempt left are known and gone on
/// with.
///
/// `area` is that of an encrypted disk as its file has it, and `rewrapped` has the new values. An area without room is
/// `yx::CIOError` `NotSupported` "The descriptor inside the disk has no room for another wrapping
/// of its key." with "uri".
std::vector<DescriptorArea> planKeyRewrapping(DescriptorArea const& area,
                                              CVMDKDescriptor const& rewrapped,
                                              yx::CURI const& mainFile);

/// Puts away what an ended attempt left, if the wrapping itself has been changed: the rest of the
/// states above. Empty if there is nothing.
std::vector<DescriptorArea> planEndOfKeyRewrapping(DescriptorArea const& area,
                                                   yx::CURI const& mainFile);

} // namespace kelm::host
