#pragma once

#include <csignal>

namespace kelm::host {

/// Blocks all signals of the calling thread as long as it lives. Threads that are started meanwhile
/// inherit that, so signals keep going to the thread that waits for files and pipes.
class SignalBlock {
public:
    SignalBlock();
    SignalBlock(SignalBlock const&) = delete;
    SignalBlock& operator=(SignalBlock const&) = delete;

    /// Puts the former signal mask back.
    ~SignalBlock();

private:
    sigset_t m_formerMask{};
};

} // namespace kelm::host
