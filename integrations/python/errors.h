#pragma once

namespace kelm::python {

/// Makes errors of the library exceptions of the package: `kelm._errors.make_error` is called with
/// what an error says of itself. For the start of the module.
void translateErrors();

} // namespace kelm::python
