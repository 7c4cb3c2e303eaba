#pragma once

#include <functional>
#include <vector>

#include "host/system/cancel.h"
#include "host/system/transfer_meter.h"
#include "yx/uri.h"

namespace kelm::host {

/// What `DurableFiles` does for files of which one at least lies in another store than the operating
/// system's, by streams and the operations of `IStore`. Each function is the step of its name there,
/// with its promises; errors are those of the stores.
class DurableStore {
public:
    /// For files of the operating system too. False for names of two stores.
    static bool tryLink(yx::CURI const& from, yx::CURI const& to);

    static void copy(yx::CURI const& from, yx::CURI const& to, CancelFlag const* cancel,
                     TransferMeter* meter); ///< the rights go along within one store
    static bool areAlike(yx::CURI const& one, yx::CURI const& other,
                         CancelFlag const* cancel); ///< compares every byte

    /// `like` gives the rights; a file that is there is replaced if `mayReplace`.
    static void writeWhole(yx::CURI const& file, std::vector<unsigned char> const& bytes,
                           yx::CURI const& like, bool mayReplace);

    static void remake(yx::CURI const& file,
                       std::function<void(yx::CURI const&)> const& fill); ///< the step
    static void patch(yx::CURI const& file, __int64 positionBytes,
                      std::vector<unsigned char> const& bytes); ///< the step
    static void remove(yx::CURI const& file);                   ///< the step
};

} // namespace kelm::host
