#include "integrations/python/work.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include "host/system/key_derivation.h"
#include "host/system/signal_block.h"
#include "integrations/python/warnings.h"
#include "krym/derive_key.h"

namespace kelm::python {

namespace {

namespace py = pybind11;

constexpr std::chrono::milliseconds kSignalInterval{50};

/// The flag of the work that the thread does; null on other threads.
thread_local host::CancelFlag const* cancelOfThread = nullptr;

struct Report {
    __int64 doneBytes;
    __int64 totalBytes;
};

/// What the thread that works and the one that waits for it tell each other.
class Conversation {
public:
    host::CancelFlag& getCancel() { return m_cancel; }

    /// On the working thread: waits until the report has been answered.
    void tell(Report const& report) {
        {
            std::unique_lock lock(m_mutex);
            m_report = report;
            m_changed.notify_all();
            m_changed.wait(lock, [this] { return !m_report; });
        }
        m_cancel.check();
    }

    /// On the working thread: the work has ended.
    void end(std::exception_ptr const& error) {
        std::lock_guard const lock(m_mutex);
        m_error = error;
        m_isOver = true;
        m_changed.notify_all();
    }

    /// On the waiting thread: waits a moment for a report or the end. False once that has come.
    bool listen(std::optional<Report>& report) {
        std::unique_lock lock(m_mutex);
        m_changed.wait_for(lock, kSignalInterval, [this] { return m_report || m_isOver; });
        report = m_report;
        return !m_isOver;
    }

    /// On the waiting thread: lets the work go on.
    void answer() {
        std::lock_guard const lock(m_mutex);
        m_report.reset();
        m_changed.notify_all();
    }

    /// Throws what the work threw. For after the end.
    void rethrow() const {
        if (m_error)
            std::rethrow_exception(m_error);
    }

private:
    host::CancelFlag m_cancel;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::optional<Report> m_report;
    bool m_isOver = false;
    std::exception_ptr m_error;
};

std::thread startThread(Conversation& conversation, host::WorkOptions const& options,
                        std::function<void(host::WorkOptions const&)> const& work) {
    // Signals go to the interpreter's own threads.
    host::SignalBlock const block;
    return std::thread([&conversation, &options, &work] {
        std::exception_ptr error;
        cancelOfThread = &conversation.getCancel();
        try {
            work(options);
        } catch (...) {
            error = std::current_exception();
        }
        conversation.end(error);
    });
}

/// With the interpreter's lock: calls whom the user wants called. Throws what they raise.
void callPython(py::object const& progress, std::optional<Report> const& report) {
    if (report) {
        py::object const total =
            report->totalBytes == -1 ? py::object(py::none()) : py::cast(report->totalBytes);
        progress(report->doneBytes, total);
    }
    if (PyErr_CheckSignals() != 0)
        throw py::error_already_set();
}

} // namespace

void watchKeyDerivation() {
    krym::setKeyDerivationHook([](int rounds) {
        if (cancelOfThread)
            cancelOfThread->check();
        if (rounds > host::KeyDerivationWatch::kDefaultMaxRounds)
            throw host::TooManyRoundsError(rounds, host::KeyDerivationWatch::kDefaultMaxRounds);
    });
}

void runWork(py::object const& progress, int threads,
             std::function<void(host::WorkOptions const&)> const& work) {
    Conversation conversation;
    host::WorkOptions options;
    options.threads = threads;
    options.cancel = &conversation.getCancel();
    if (!progress.is_none()) {
        options.progress = [&](__int64 doneBytes, __int64 totalBytes) {
            conversation.tell({doneBytes, totalBytes});
        };
    }
    std::optional<py::error_already_set> raised;
    {
        py::gil_scoped_release const released;
        std::thread thread = startThread(conversation, options, work);
        std::optional<Report> report;
        while (conversation.listen(report)) {
            {
                py::gil_scoped_acquire const held;
                try {
                    if (raised)
                        report.reset();
                    callPython(progress, report);
                } catch (py::error_already_set& error) {
                    raised.emplace(std::move(error));
                    conversation.getCancel().set();
                }
            }
            conversation.answer();
        }
        thread.join();
    }
    deliverWarnings();
    if (raised)
        throw py::error_already_set(std::move(*raised));
    conversation.rethrow();
}

} // namespace kelm::python
