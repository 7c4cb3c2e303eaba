#pragma once

#include <pybind11/pybind11.h>

namespace kelm::python {

// Each adds a group of functions to the extension module.

void addDisks(pybind11::module_& module);
void addTransfers(pybind11::module_& module);
void addChecks(pybind11::module_& module);
void addBackups(pybind11::module_& module);

} // namespace kelm::python
