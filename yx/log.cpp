#include "yx/log.h"

#include <algorithm>
#include <cstdio>
#include <mutex>

#include "yx/error.h"

namespace yx {

namespace {

/// The hooks are the framework's own global state; the mutex covers the exchange of a handler, not
/// its calls.
template <class Handler>
class HandlerSlot {
public:
    Handler exchange(Handler handler) {
        std::lock_guard const lock(m_mutex);
        std::swap(m_handler, handler);
        return handler;
    }

    Handler get() {
        std::lock_guard const lock(m_mutex);
        return m_handler;
    }

private:
    std::mutex m_mutex;
    Handler m_handler;
};

using LogHandler = std::function<void(LogEntry const&)>;
using IgnoredExceptionHandler = std::function<void(char const*, std::exception&, bool)>;

// The slots are never destroyed, since objects that end with the process may still report.

HandlerSlot<LogHandler>& logSlot() {
    static auto& slot = *new HandlerSlot<LogHandler>;
    return slot;
}

HandlerSlot<IgnoredExceptionHandler>& ignoredExceptionSlot() {
    static auto& slot = *new HandlerSlot<IgnoredExceptionHandler>;
    return slot;
}

/// Writes the text as one line, whatever it holds.
void writeLine(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char character) { return character >= 0 && character < ' '; },
        ' ');
    text += '\n';
    std::fwrite(text.data(), 1, text.size(), stderr);
}

std::string describe(std::exception const& error) {
    std::string text = error.what();
    if (auto const* framework = dynamic_cast<CError const*>(&error)) {
        CProps const& params = framework->getParams();
        for (int i = 0; i < params.getCount(); ++i) {
            text += (i == 0 ? " (" : ", ") + params.getName(i).toStdString() + ": " +
                    params.getValue(i).toStdString();
        }
        if (params.getCount() > 0)
            text += ")";
    }
    return text;
}

void log(LogEntry const& entry) {
    if (LogHandler const handler = logSlot().get()) {
        handler(entry);
        return;
    }
    std::string line = entry.level == LogLevel::Warning ? "warning: " : "error: ";
    line += entry.message.toStdString();
    if (!entry.detail.isEmpty())
        line += " " + entry.detail.toStdString();
    if (entry.error)
        line += ": " + describe(*entry.error);
    writeLine(line);
}

} // namespace

LogHandler setLogHandler(LogHandler handler) {
    return logSlot().exchange(std::move(handler));
}

void logWarning(String const& message) {
    log({LogLevel::Warning, message, "", nullptr});
}

void logWarning(std::exception const& error, String const& message, String const& detail) {
    log({LogLevel::Warning, message, detail, &error});
}

void logError(std::exception const& error, String const& message, String const& detail) {
    log({LogLevel::Error, message, detail, &error});
}

IgnoredExceptionHandler setIgnoredExceptionHandler(IgnoredExceptionHandler handler) {
    return ignoredExceptionSlot().exchange(std::move(handler));
}

void onExceptionInDestructorIgnored(char const* className, std::exception& error,
                                    bool flag) noexcept {
    try {
        if (IgnoredExceptionHandler const handler = ignoredExceptionSlot().get()) {
            handler(className, error, flag);
            return;
        }
        writeLine(std::string("error: exception ignored in the destructor of ") + className + ": " +
                  describe(error));
    } catch (...) {
        // A destructor is running; nobody is left to report it to.
    }
}

} // namespace yx
