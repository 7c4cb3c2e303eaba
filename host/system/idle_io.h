#pragma once

namespace kelm::host {

/// Puts the calling thread, and those that it starts from then on, into the class of input and
/// output that gets the device only while nobody else wants it. Errors are those of
/// `throwSystemError`. Schedulers of devices that know no classes take no notice.
void useIdleIO();

} // namespace kelm::host
