#pragma once

#include <string>

namespace kelm::tool {

/// Writes to standard output. If that fails, as when the reader of a pipe has gone, it is
/// `yx::CIOError`, so that no command succeeds whose output is lost. A signal during a wait for the
/// reader is `host::CancelledError`. In both cases the output that is still buffered is dropped.
void print(std::string const& text);

/// Writes out what is buffered, with the same errors.
void flushOutput();

/// Whether one of them has failed. Nothing more can be written then.
bool hasOutputFailed();

/// Drops what is buffered, so that a program that ends with an error does not wait for a reader.
void dropOutput();

} // namespace kelm::tool
