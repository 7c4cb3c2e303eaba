#include "yx/mt_rand.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <system_error>

#include <pthread.h>
#include <sys/random.h>

#include "yx/error.h"

namespace yx {

namespace {

/// How many forks lie between this process and the one that loaded the library.
std::atomic<unsigned int> forkCount = 0;

unsigned int getForkCount() {
    // Not the number of the process: a child may get that of an ancestor that has ended.
    static int const error = ::pthread_atfork(nullptr, nullptr, [] { forkCount.fetch_add(1); });
    if (error != 0)
        throw CError("Cannot watch for forks: " +
                         String::fromUTF8(std::generic_category().message(error)),
                     "", -1, CProps(), nullptr);
    return forkCount.load();
}

void fillFromOperatingSystem(unsigned char* target, std::size_t sizeBytes) {
    while (sizeBytes > 0) {
        ssize_t const count = getrandom(target, sizeBytes, 0);
        if (count < 0 && errno == EINTR)
            continue;
        if (count <= 0)
            throw CError("Cannot get random data from the operating system: " +
                             String::fromUTF8(std::generic_category().message(errno)),
                         "", -1, CProps(), nullptr);
        target += count;
        sizeBytes -= static_cast<std::size_t>(count);
    }
}

std::mt19937 makeSeededGenerator() {
    std::array<std::uint32_t, std::mt19937::state_size> seed{};
    fillFromOperatingSystem(reinterpret_cast<unsigned char*>(seed.data()), sizeof(seed));
    std::seed_seq sequence(seed.begin(), seed.end());
    return std::mt19937(sequence);
}

} // namespace

CMTRand::CMTRand() : m_seededForkCount(getForkCount()), m_generator(makeSeededGenerator()) {}

P<CMTRand> const& CMTRand::getGlobal() {
    // Never destroyed, since objects that end with the process may still draw.
    static auto const& instance = *new P<CMTRand>(makeObject<CMTRand>());
    return instance;
}

P<CMutex> const& CMTRand::getGlobalInstanceMutex() {
    static auto const& mutex = *new P<CMutex>(makeObject<CMutex>());
    return mutex;
}

unsigned int CMTRand::drawGlobal32() {
    CMutexLock const lock(getGlobalInstanceMutex().get());
    return getGlobal()->rand32();
}

void CMTRand::drawGlobalData(unsigned char* target, int sizeBytes) {
    CMutexLock const lock(getGlobalInstanceMutex().get());
    getGlobal()->randData(target, sizeBytes);
}

unsigned int CMTRand::rand32() {
    if (unsigned int const count = getForkCount(); count != m_seededForkCount) {
        m_generator = makeSeededGenerator();
        m_seededForkCount = count;
    }
    return static_cast<unsigned int>(m_generator());
}

void CMTRand::randData(unsigned char* target, int sizeBytes) {
    if (sizeBytes > 0)
        fillFromOperatingSystem(target, static_cast<std::size_t>(sizeBytes));
}

} // namespace yx
