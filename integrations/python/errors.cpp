#include "integrations/python/errors.h"

#include <utility>

#include <pybind11/pybind11.h>

#include "host/disk/error_kind.h"
#include "host/system/error_text.h"
#include "integrations/python/conversions.h"
#include "yx/error.h"

namespace kelm::python {

namespace {

namespace py = pybind11;

char const* nameOfKind(host::ErrorKind kind) {
    switch (kind) {
    case host::ErrorKind::Cancelled:
        return "cancelled";
    case host::ErrorKind::Password:
        return "password";
    case host::ErrorKind::Unfinished:
        return "unfinished";
    case host::ErrorKind::InUse:
        return "in use";
    case host::ErrorKind::Damaged:
        return "damaged";
    case host::ErrorKind::NotFound:
        return "not found";
    case host::ErrorKind::NoSpace:
        return "no space";
    }
    return "";
}

/// For errors without a kind: by the outermost one in the chain of causes that says something.
char const* nameByClass(yx::CError const& error) {
    for (yx::CError const* known = &error; known; known = known->getCause()) {
        if (dynamic_cast<yx::CInvalidArgError const*>(known))
            return "invalid argument";
        auto const* const ioError = dynamic_cast<yx::CIOError const*>(known);
        if (ioError && ioError->getIOCode() == yx::CIOError::AlreadyExists)
            return "exists";
        if (ioError && ioError->getIOCode() == yx::CIOError::AccessDenied)
            return "denied";
        if (ioError || dynamic_cast<yx::CFileSystemError const*>(known))
            return "io";
    }
    return "";
}

char const* nameOfKind(yx::CError const& error) {
    std::optional<host::ErrorKind> const kind = host::kindOf(error);
    return kind ? nameOfKind(*kind) : nameByClass(error);
}

/// The file that an error is about; None if it names none.
py::object nameOfFile(yx::CProps const& properties) {
    if (yx::String const* const path = properties.find("path"))
        return toText(path->toStdString());
    yx::String const* const uri = properties.find("uri");
    if (!uri)
        return py::none();
    try {
        return toText(yx::CURI(*uri));
    } catch (yx::CError const&) {
        return toText(uri->toStdString());
    }
}

py::object makeException(yx::CError const& error) {
    yx::CProps const& properties = error.getParams();
    py::dict values;
    for (int i = 0; i < properties.getCount(); ++i) {
        values[toText(properties.getName(i).toStdString())] =
            toText(properties.getValue(i).toStdString());
    }
    py::object const cause =
        error.getCause() ? makeException(*error.getCause()) : py::object(py::none());
    return py::module_::import("kelm._errors")
        .attr("make_error")(nameOfKind(error), toText(host::describeError(error)),
                            toText(error.getMessage().toStdString()), error.getCode(), values,
                            nameOfFile(properties), cause);
}

void translateError(std::exception_ptr thrown) {
    try {
        if (thrown)
            std::rethrow_exception(std::move(thrown));
    } catch (yx::CError const& error) {
        try {
            py::object const exception = makeException(error);
            PyErr_SetObject(py::type::handle_of(exception).ptr(), exception.ptr());
        } catch (py::error_already_set& failure) {
            failure.restore();
        }
    }
}

} // namespace

void translateErrors() {
    py::register_exception_translator(translateError);
}

} // namespace kelm::python
