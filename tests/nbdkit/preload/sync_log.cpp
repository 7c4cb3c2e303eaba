// A library to be loaded before all others: counts the calls of fdatasync that succeed, by a
// character each in the file that KELM_SYNC_LOG names.

#include <cstdlib>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) int fdatasync(int descriptor) {
    static auto const systemCall = reinterpret_cast<int (*)(int)>(::dlsym(RTLD_NEXT, "fdatasync"));
    int const result = systemCall(descriptor);
    char const* const name = std::getenv("KELM_SYNC_LOG");
    int const log = result == 0 && name ? ::open(name, O_WRONLY | O_CREAT | O_APPEND, 0600) : -1;
    if (log < 0)
        return result;
    bool const isLogged = ::write(log, "s", 1) == 1;
    ::close(log);
    return isLogged ? result : -1;
}
