#include "tools/kelm/invocation.h"

#include <algorithm>
#include <csignal>
#include <cstdio>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "host/system/open_file_limit.h"

namespace kelm::tool {

namespace {

void writeToStandardError(std::string const& text) {
    std::fputs(text.c_str(), stderr);
}

} // namespace

Invocation::Invocation(CommandResult& result)
    : m_result(result),
      m_files(yx::makeObject<host::FileSystems>()),
      m_signals(m_cancel),
      m_storeWatch(m_cancel, [this](std::chrono::seconds waited) { tellWaiting(waited); }) {
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

/// By another thread, while the one that shows progress waits.
void Invocation::tellWaiting(std::chrono::seconds waited) const {
    std::string const seconds = std::to_string(waited.count());
    if (m_progressKind == ProgressKind::Lines)
        writeToStandardError("{\"waiting\":\"store\",\"seconds\":" + seconds + "}\n");
    else if (m_progressKind == ProgressKind::Bar && ::isatty(STDERR_FILENO) != 0)
        writeToStandardError("\r\033[Kkelm: waiting for the store, " + seconds + " s\n");
}

void Invocation::tellMeter() {
    if (m_meter.getReadBytes() == 0 && m_meter.getStoredBytes() == 0)
        return;
    m_result.add(
        {{"readBytes", m_meter.getReadBytes()}, {"storedBytes", m_meter.getStoredBytes()}});
}

void Invocation::summarize() const {
    if (m_isLong)
        m_result.summarize();
}

void Invocation::tellSkipped(__int64 contentBytes) {
    // The last grain may reach beyond the end.
    __int64 const skippedBytes = contentBytes - m_meter.getStoredBytes();
    m_result.add({{"skippedBytes", std::max<__int64>(0, skippedBytes)}});
}

LongWork::LongWork(Invocation& invocation, char const* label, int threads)
    : m_bar(label, STDERR_FILENO), m_lines(label, writeToStandardError) {
    m_options.threads = threads;
    if (invocation.getProgressKind() == ProgressKind::Bar)
        m_options.progress = m_bar.callback();
    else if (invocation.getProgressKind() == ProgressKind::Lines)
        m_options.progress = m_lines.callback();
    m_options.cancel = &invocation.getCancel();
    m_options.meter = &invocation.getMeter();
}

} // namespace kelm::tool
