#include "tools/kelm/invocation.h"

#include <csignal>

#include <unistd.h>

#include "host/system/open_file_limit.h"

namespace kelm::tool {

Invocation::Invocation(CommandResult& result)
    : m_result(result), m_files(yx::makeObject<yx::CNativeFileSystem>()), m_signals(m_cancel) {
    // A reader that goes away must show as an error of writing, so that the work is cleaned up.
    std::signal(SIGPIPE, SIG_IGN);
    // So must a file that the limit of the process lets grow no more.
    std::signal(SIGXFSZ, SIG_IGN);
    host::raiseOpenFileLimit();
}

Invocation::~Invocation() {
    // Handlers are about to go, and the program's end would be that of an interrupted one.
    sigset_t signals;
    sigemptyset(&signals);
    for (int const signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
}

yx::String Invocation::readParentPassword() const {
    return m_parentPasswords && m_parentPasswords->isGiven()
               ? m_parentPasswords->read(m_cancel).get()
               : yx::String();
}

LongWork::LongWork(Invocation const& invocation, char const* label, int threads)
    : m_bar(label, STDERR_FILENO) {
    m_options.threads = threads;
    m_options.progress = m_bar.callback();
    m_options.cancel = &invocation.getCancel();
}

} // namespace kelm::tool
