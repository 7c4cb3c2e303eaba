// The extension module under the package `kelm`: disks, and long work on them. What users see is in
// the package's own sources, which call this with arguments of the right types.

#include "integrations/python/bindings.h"
#include "integrations/python/errors.h"
#include "integrations/python/warnings.h"
#include "integrations/python/work.h"

PYBIND11_MODULE(_kelm, module) {
    kelm::python::collectWarnings();
    kelm::python::watchKeyDerivation();
    kelm::python::translateErrors();
    module.attr("version") = KELM_VERSION;
    kelm::python::addDisks(module);
    kelm::python::addTransfers(module);
    kelm::python::addChecks(module);
    kelm::python::addBackups(module);
}
