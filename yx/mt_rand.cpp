#include "yx/mt_rand.h"

#include <array>
#include <cerrno>
#include <cstring>

#if defined(_WIN32)
#include <bcrypt.h>
#include <windows.h>
#else
#include <sys/random.h>
#endif

#include "yx/error.h"

namespace yx {

namespace {

void fillFromOperatingSystem(unsigned char* target, std::size_t sizeBytes) {
#if defined(_WIN32)
    if (BCryptGenRandom(nullptr, target, static_cast<ULONG>(sizeBytes),
                        BCRYPT_USE_SYSTEM_PREFERRED_RNG) != 0)
        throw CError("Cannot get random data from the operating system.", "", -1, CProps(),
                     nullptr);
#else
    while (sizeBytes > 0) {
        ssize_t const count = getrandom(target, sizeBytes, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            throw CError("Cannot get random data from the operating system: " +
                             String(std::strerror(errno)),
                         "", -1, CProps(), nullptr);
        target += count;
        sizeBytes -= static_cast<std::size_t>(count);
    }
#endif
}

std::mt19937 makeSeededGenerator() {
    std::array<std::uint32_t, std::mt19937::state_size> seed{};
    fillFromOperatingSystem(reinterpret_cast<unsigned char*>(seed.data()), sizeof(seed));
    std::seed_seq sequence(seed.begin(), seed.end());
    return std::mt19937(sequence);
}

} // namespace

CMTRand::CMTRand() : m_generator(makeSeededGenerator()) {}

P<CMTRand> const& CMTRand::getGlobal() {
    // Never destroyed, since objects that end with the process may still draw.
    static auto const& instance = *new P<CMTRand>(makeObject<CMTRand>());
    return instance;
}

P<CMutex> const& CMTRand::getGlobalInstanceMutex() {
    static auto const& mutex = *new P<CMutex>(makeObject<CMutex>());
    return mutex;
}

unsigned int CMTRand::rand32() {
    return static_cast<unsigned int>(m_generator());
}

void CMTRand::randData(unsigned char* target, int sizeBytes) {
    if (sizeBytes > 0)
        fillFromOperatingSystem(target, static_cast<std::size_t>(sizeBytes));
}

} // namespace yx
