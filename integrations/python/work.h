#pragma once

#include <functional>

#include <pybind11/pybind11.h>

#include "host/system/work_options.h"

namespace kelm::python {

/// Limits the derivation of keys, and lets `runWork` interrupt it. For the start of the module.
void watchKeyDerivation();

/// Runs long work on a thread of its own, and waits for it without the interpreter's lock. The
/// calling thread takes the lock to handle signals, some twenty times a second, and to call
/// `progress(done, total)` with numbers of bytes, about ten times a second at most; `total` is None
/// if it is not known. `progress` may be None.
///
/// What `progress` or the handler of a signal raises, such as KeyboardInterrupt, cancels the work,
/// and is raised here once that has ended, whatever came of it. Otherwise, what the work throws is
/// thrown. The work must not touch objects of Python.
void runWork(pybind11::object const& progress, int threads,
             std::function<void(host::WorkOptions const& options)> const& work);

} // namespace kelm::python
