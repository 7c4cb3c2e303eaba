#pragma once

#include <filesystem>
#include <map>
#include <string>

#include <sys/types.h>

namespace test_support {

/// Sees how often a file of a folder is opened.
class OpeningWatch {
public:
    /// Counts from now on.
    explicit OpeningWatch(std::filesystem::path const& folder);
    OpeningWatch(OpeningWatch const&) = delete;
    OpeningWatch& operator=(OpeningWatch const&) = delete;
    ~OpeningWatch();

    /// Waits until a file has been opened that many times since this began, or a process has ended.
    /// Returns whether it has been.
    bool waitFor(std::string const& name, int openings, pid_t process);

private:
    void readNews();

    int m_watch;
    std::map<std::string, int> m_openings;
};

} // namespace test_support
