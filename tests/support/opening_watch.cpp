#include "tests/support/opening_watch.h"

#include <iterator>
#include <stdexcept>

#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

#include "tests/support/running_program.h"

namespace test_support {

OpeningWatch::OpeningWatch(std::filesystem::path const& folder)
    : m_watch(::inotify_init1(IN_CLOEXEC)) {
    if (::inotify_add_watch(m_watch, folder.c_str(), IN_OPEN) < 0)
        throw std::runtime_error("cannot watch " + folder.string());
}

OpeningWatch::~OpeningWatch() {
    ::close(m_watch);
}

bool OpeningWatch::waitFor(std::string const& name, int openings, pid_t process) {
    int const end = openProcess(process);
    pollfd events[] = {{m_watch, POLLIN, 0}, {end, POLLIN, 0}};
    while (m_openings[name] < openings && events[1].revents == 0) {
        ::poll(events, std::size(events), -1);
        if (events[0].revents != 0)
            readNews();
    }
    ::close(end);
    return m_openings[name] >= openings;
}

void OpeningWatch::readNews() {
    alignas(inotify_event) char news[4096];
    ssize_t const bytes = ::read(m_watch, news, sizeof news);
    for (ssize_t at = 0; at < bytes;) {
        auto const* const event = reinterpret_cast<inotify_event const*>(news + at);
        if (event->len > 0)
            ++m_openings[event->name];
        at += static_cast<ssize_t>(sizeof *event + event->len);
    }
}

} // namespace test_support
