#pragma once

#include <memory>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include "host/disk/disk_trust.h"
#include "host/system/password.h"
#include "yx/uri.h"

namespace kelm::python {

/// Text of the library, as Python names files: what is no UTF-8 is kept as surrogates.
pybind11::str toText(std::string const& text);

/// The name of a file: a path of the operating system.
pybind11::str toText(yx::CURI const& file);
pybind11::tuple toTexts(std::vector<yx::CURI> const& files);

/// None for "".
pybind11::object toTextOrNone(std::string const& text);

/// A password that a user gives as str, bytes or bytearray; None gives the empty one. An empty one,
/// and bytes that are no UTF-8, are ValueError; anything else is TypeError.
host::Password toPassword(pybind11::object const& password);

/// URIs of files that a user names.
std::vector<yx::CURI> toURIs(std::vector<std::string> const& paths);

/// An object of a class of the module, which functions take by its holder: so one that was made past
/// its constructor is refused by pybind11, and None, which has no holder, here. TypeError.
template <class Held>
Held& getHeld(std::shared_ptr<Held> const& holder) {
    if (!holder)
        throw pybind11::type_error("None is no object of the module");
    return *holder;
}

/// What opens disks.
struct Access {
    host::Password password;
    host::DiskTrust trust = {};

    /// Unfinished disks are refused unless `unfinished` is set.
    static Access make(pybind11::object const& password, std::vector<std::string> const& allowPaths,
                       bool unfinished = false);
};

} // namespace kelm::python
