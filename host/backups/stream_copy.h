#pragma once

#include "host/system/cancel.h"
#include "host/system/transfer_meter.h"
#include "yx/stream.h"

namespace kelm::host {

/// `copyFileContent` for files of any store: copies all that a stream has into an empty one, brings
/// it to the device and compares the two. Pieces that hold nothing but zeros become holes where the
/// store has holes.
///
/// A copy that reads as something else is `yx::CIOError` `IOFailure` "The copy differs from the
/// file." with "uri". `cancel` and `meter` may be null.
void copyStream(yx::IIOStream& source, yx::IIOStream& target, CancelFlag const* cancel,
                TransferMeter* meter = nullptr);

/// Whether both streams have the same bytes. `cancel` and `meter` may be null.
bool areStreamsAlike(yx::IIOStream& one, yx::IIOStream& other, CancelFlag const* cancel,
                     TransferMeter* meter = nullptr);

} // namespace kelm::host
