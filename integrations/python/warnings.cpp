#include "integrations/python/warnings.h"

#include <mutex>
#include <string>
#include <vector>

#include <pybind11/pybind11.h>

#include "host/system/error_text.h"
#include "host/system/name_text.h"
#include "yx/log.h"

namespace kelm::python {

namespace {

/// The library warns while its caller has no lock of the interpreter, so nothing can be called then.
struct KeptWarnings {
    std::mutex mutex;
    std::vector<std::string> texts;

    void add(std::string text) {
        std::lock_guard const lock(mutex);
        texts.push_back(std::move(text));
    }

    std::vector<std::string> takeAll() {
        std::lock_guard const lock(mutex);
        return std::exchange(texts, {});
    }
};

/// Never destroyed: threads may outlive the module.
KeptWarnings& keptWarnings() {
    static auto* const warnings = new KeptWarnings;
    return *warnings;
}

} // namespace

void collectWarnings() {
    // Errors that the library logs are thrown too.
    yx::setLogHandler([](yx::LogEntry const& entry) {
        if (entry.level == yx::LogLevel::Warning)
            keptWarnings().add(host::printable(entry.message.toStdString()));
    });
    yx::setIgnoredExceptionHandler([](char const*, std::exception& error, bool) {
        keptWarnings().add(host::describeError(error));
    });
}

void deliverWarnings() {
    std::vector<std::string> const texts = keptWarnings().takeAll();
    if (texts.empty())
        return;
    try {
        pybind11::object const logger =
            pybind11::module_::import("logging").attr("getLogger")("kelm");
        for (std::string const& text : texts)
            logger.attr("warning")("%s", text);
    } catch (pybind11::error_already_set& error) {
        // Ctrl-C is not the logger's: it comes once more, where it can be raised.
        if (error.matches(PyExc_KeyboardInterrupt))
            PyErr_SetInterrupt();
        else
            error.discard_as_unraisable("kelm");
    }
}

} // namespace kelm::python
