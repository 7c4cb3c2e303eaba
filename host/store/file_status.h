#pragma once

#include <optional>

#include "host/store/store.h"

namespace kelm::host {

/// What a name stands for, links followed; nothing where there is no such file, where it cannot be
/// asked about, and for a URI without a store.
std::optional<FileStatus> findStatus(yx::CURI const& uri);

/// Which file a name leads to, links followed; nothing as for `findStatus`.
std::optional<FileIdentity> identifyFile(yx::CURI const& uri);

/// Which file a stream is open on, whatever has its name by now; nothing if that cannot be asked.
/// A stream that only passes on to another one (`ForwardingStream`) is on that one's file.
std::optional<FileIdentity> identifyStream(yx::IStreamBase& stream);

} // namespace kelm::host
