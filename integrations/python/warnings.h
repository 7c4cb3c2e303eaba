#pragma once

namespace kelm::python {

/// Keeps what the library warns of, on whatever thread, until `deliverWarnings`. For the start of
/// the module.
void collectWarnings();

/// Hands what has been kept to Python's logger "kelm". Needs the interpreter's lock; what the
/// logger raises is reported as unraisable, but for Ctrl-C, which comes again.
void deliverWarnings();

} // namespace kelm::python
