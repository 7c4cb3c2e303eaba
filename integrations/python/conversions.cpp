#include "integrations/python/conversions.h"

#include <optional>
#include <string_view>

#include "host/store/file_names.h"
#include "host/system/name_text.h"

namespace kelm::python {

namespace {

namespace py = pybind11;

/// The bytes inside of the object, as long as it lives.
std::string_view viewSecret(py::object const& secret) {
    if (PyUnicode_Check(secret.ptr())) {
        Py_ssize_t length = 0;
        char const* const text = PyUnicode_AsUTF8AndSize(secret.ptr(), &length);
        if (!text)
            throw py::error_already_set();
        return {text, static_cast<std::size_t>(length)};
    }
    if (PyBytes_Check(secret.ptr())) {
        return {PyBytes_AS_STRING(secret.ptr()),
                static_cast<std::size_t>(PyBytes_GET_SIZE(secret.ptr()))};
    }
    if (PyByteArray_Check(secret.ptr())) {
        return {PyByteArray_AS_STRING(secret.ptr()),
                static_cast<std::size_t>(PyByteArray_GET_SIZE(secret.ptr()))};
    }
    throw py::type_error("a password is str, bytes or bytearray");
}

} // namespace

py::str toText(std::string const& text) {
    PyObject* const decoded =
        PyUnicode_DecodeFSDefaultAndSize(text.data(), static_cast<Py_ssize_t>(text.size()));
    if (!decoded)
        throw py::error_already_set();
    return py::reinterpret_steal<py::str>(decoded);
}

py::str toText(yx::CURI const& file) {
    return toText(host::displayName(file));
}

py::tuple toTexts(std::vector<yx::CURI> const& files) {
    py::list texts;
    for (yx::CURI const& file : files)
        texts.append(toText(file));
    return py::tuple(texts);
}

py::object toTextOrNone(std::string const& text) {
    return text.empty() ? py::object(py::none()) : toText(text);
}

host::Password toPassword(py::object const& password) {
    if (password.is_none())
        return {};
    std::optional<yx::String> text = yx::String::tryFromUTF8(viewSecret(password));
    if (!text)
        throw py::value_error("the password is no UTF-8");
    if (text->isEmpty())
        throw py::value_error("the password is empty");
    host::Password copy(*text);
    text->wipe();
    return copy;
}

std::vector<yx::CURI> toURIs(std::vector<std::string> const& paths) {
    std::vector<yx::CURI> uris;
    uris.reserve(paths.size());
    for (std::string const& path : paths)
        uris.push_back(host::uriFromArgument(path));
    return uris;
}

Access Access::make(py::object const& password, std::vector<std::string> const& allowPaths,
                    bool unfinished) {
    Access access{toPassword(password)};
    access.trust.allowedPaths = toURIs(allowPaths);
    if (unfinished)
        access.trust.unfinished = host::UnfinishedDisks::InChain;
    return access;
}

} // namespace kelm::python
