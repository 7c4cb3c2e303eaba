#pragma once

#include <string>

namespace kelm::tool {

/// Writes to standard output. An output that takes no more, such as a pipe whose reader has gone, is
/// `yx::CIOError`, so that no command says that all is well when nobody was told. A signal while the
/// output waits is `host::CancelledError`. What was not written by then is dropped.
void print(std::string const& text);

/// Brings what was printed to its place, with the same errors.
void flushOutput();

/// Drops what was printed and is not at its place, so that a program that ends with an error does
/// not wait for a reader.
void dropOutput();

} // namespace kelm::tool
