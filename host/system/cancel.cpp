#include "host/system/cancel.h"

namespace kelm::host {

namespace {

/// What the handler reaches; a handler gets no argument of its own.
std::atomic<CancelFlag*> activeFlag{nullptr};

extern "C" void setActiveFlag(int) {
    if (CancelFlag* const flag = activeFlag.load())
        flag->set();
}

} // namespace

CancelledError::CancelledError() : CError("Cancelled.", "", -1, yx::CProps(), nullptr) {}

std::shared_ptr<yx::CError const> CancelledError::clone() const {
    return std::make_shared<CancelledError>(*this);
}

SignalCancellation::SignalCancellation(CancelFlag& flag) {
    activeFlag.store(&flag);
    struct sigaction action = {};
    action.sa_handler = setActiveFlag;
    // The default comes back at the first signal, so that a second one always ends the process. No
    // restart: a read that waits for a pipe or a prompt must notice.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], nullptr, &m_before[i]);
        // Whoever started the process ignoring a signal, as for one that outlives its terminal,
        // means it.
        if (m_before[i].sa_handler != SIG_IGN)
            sigaction(kSignals[i], &action, nullptr);
    }
}

SignalCancellation::~SignalCancellation() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i)
        sigaction(kSignals[i], &m_before[i], nullptr);
    activeFlag.store(nullptr);
}

} // namespace kelm::host
