#include "host/system/cancel.h"

#include <cassert>

namespace kelm::host {

namespace {

/// For the handler, which cannot be given an argument.
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
    [[maybe_unused]] CancelFlag const* const former = activeFlag.exchange(&flag);
    assert(!former && "a process has one such object at a time");
    struct sigaction action = {};
    action.sa_handler = setActiveFlag;
    // The first signal restores the default action, so that a second one always ends the process.
    // No SA_RESTART: a read that waits for a pipe or a prompt must return.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (std::size_t i = 0; i < std::size(kSignals); ++i) {
        sigaction(kSignals[i], nullptr, &m_before[i]);
        // A process that was started with a signal ignored is to go on ignoring it: one that must
        // outlive its terminal, for example.
        if (m_before[i].sa_handler != SIG_IGN)
            sigaction(kSignals[i], &action, nullptr);
    }
}

SignalCancellation::~SignalCancellation() {
    for (std::size_t i = 0; i < std::size(kSignals); ++i)
        sigaction(kSignals[i], &m_before[i], nullptr);
    assert(activeFlag.load() && "no other object has taken the signals over");
    activeFlag.store(nullptr);
}

} // namespace kelm::host
