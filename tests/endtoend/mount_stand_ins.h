#pragma once

#include <filesystem>
#include <string>

namespace endtoend {

/// Small programs that stand for nbdkit, nbdfuse, mount and umount, first in the search path of all
/// programs that are started while the object lives. They write down in the file "calls" how they
/// were called, and the passwords that nbdkit was given, and do as if:
///
///     nbdfuse    shows a file "nbd" until that is taken away, or until it is ended
///     mount      puts another folder in the place of the one that it is given, with a file "file"
///     umount     takes one of both away
///
/// In folders of the test, which is also where the program keeps what it remembers.
class MountStandIns {
public:
    explicit MountStandIns(std::filesystem::path const& folder);
    MountStandIns(MountStandIns const&) = delete;
    MountStandIns& operator=(MountStandIns const&) = delete;
    ~MountStandIns();

    /// Lets some of them fail from now on: names with blanks between them. "stuck" behind a name
    /// and a dash lets that program wait until `release`.
    static void fail(std::string const& names);

    /// Waits until a program is stuck, and returns which.
    std::string waitForStuck() const;

    /// Lets the program that is stuck go on.
    void release() const;

    /// What was called since the last time, a line each. The test's folder is "@" there, and the
    /// folder of the record "@/record".
    std::string takeCalls() const;

    /// Whether the program remembers nothing, and nothing runs.
    bool isClean() const;

    /// A name for a program that none of these is.
    void remove(std::string const& program) const;

private:
    std::filesystem::path m_folder;
    std::string m_formerPath;
    std::string m_formerRuntime;
    bool m_hadRuntime;
};

} // namespace endtoend
