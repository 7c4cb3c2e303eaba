#include "integrations/cephfs/client_life.h"

#include <cstdint>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/utsname.h>
#include <unistd.h>

#include "integrations/cephfs/client_note.h"

namespace kelm::ceph {

namespace {

using Life = host::StoreHolder::Life;

/// What the cluster's clock and this machine's may tell differently.
constexpr __int64 kToleranceSeconds = 5;

/// For how long a process has run; nothing if there is none.
std::optional<__int64> findAgeSeconds(std::string const& process) {
    bool const isNumber =
        !process.empty() && process.find_first_not_of("0123456789") == std::string::npos;
    if (!isNumber)
        return std::nullopt;
    std::ifstream file("/proc/" + process + "/stat");
    std::string line;
    if (!std::getline(file, line))
        return std::nullopt;
    // Behind the name of the program, which may have blanks and brackets in it. The number is the
    // 22nd, of which the name is the second.
    constexpr int kFieldsBetween = 19;
    std::istringstream fields(line.substr(line.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < kFieldsBetween; ++i)
        fields >> skipped;
    __int64 beginTicks = 0;
    if (!(fields >> beginTicks))
        return std::nullopt;
    timespec now{};
    ::clock_gettime(CLOCK_BOOTTIME, &now);
    return now.tv_sec - beginTicks / ::sysconf(_SC_CLK_TCK);
}

bool isOfThisMachine(CephClient const& client) {
    utsname names{};
    return ::uname(&names) == 0 && client.host == names.nodename;
}

} // namespace

Life findLifeOf(CephClient const& client) {
    if (std::optional<bool> const lives = ClientNote::findWhetherLives(client.uuid))
        return *lives ? Life::LivesHere : Life::DiedHere;
    if (!isOfThisMachine(client))
        return Life::Unknown;
    std::optional<__int64> const ageSeconds = findAgeSeconds(client.process);
    bool const lives =
        ageSeconds && *ageSeconds + kToleranceSeconds >= client.connectedSeconds.value_or(0);
    return lives ? Life::LivesHere : Life::Unknown;
}

} // namespace kelm::ceph
