#pragma once

#include <csignal>

namespace kelm::host {

/// Blocks all signals in the calling thread as long as it lives. Threads that are started meanwhile
/// inherit the block, so that signals go to the thread that waits for files and pipes.
class SignalBlock {
public:
    SignalBlock();
    SignalBlock(SignalBlock const&) = delete;
    SignalBlock& operator=(SignalBlock const&) = delete;

    /// Restores the former signal mask.
    ~SignalBlock();

private:
    sigset_t m_formerMask{};
};

} // namespace kelm::host
