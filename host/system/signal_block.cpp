#include "host/system/signal_block.h"

#include <pthread.h>

namespace kelm::host {

SignalBlock::SignalBlock() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &m_formerMask);
}

SignalBlock::~SignalBlock() {
    pthread_sigmask(SIG_SETMASK, &m_formerMask, nullptr);
}

} // namespace kelm::host
