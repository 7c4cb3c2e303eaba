#pragma once

#include <random>

#include "yx/mutex.h"

namespace yx {

/// The random source. An object is not safe for several threads at once: callers hold the global
/// instance mutex around each draw from the global instance. A process that is forked off draws
/// numbers of its own, from objects that it shares with its parent too.
class YX_API CMTRand : public CBase {
public:
    /// Seeds the whole state of the generator from the operating system. Throws `CError` if the
    /// operating system gives no random bytes.
    CMTRand();

    /// The generator that all share, made at first use, and the mutex to hold while drawing from
    /// it.
    static P<CMTRand> const& getGlobal();
    static P<CMutex> const& getGlobalInstanceMutex();

    /// `rand32` and `randData` of the generator that all share, under its mutex. May be called from
    /// several threads at once.
    static unsigned int drawGlobal32();
    static void drawGlobalData(unsigned char* target, int sizeBytes);

    /// A value of the Mersenne Twister; fit for identifiers, not for keys. In a process forked off
    /// since the last draw the generator is seeded anew; errors are those of the constructor.
    unsigned int rand32();

    /// Fills bytes from the operating system's cryptographic source, since keys are drawn with it.
    /// A size of 0 or below fills none. Throws `CError` if the source fails; what is then in
    /// `target` is not defined.
    void randData(unsigned char* target, int sizeBytes);

private:
    /// In the process whose number of forks this is, the numbers are its own.
    unsigned int m_seededForkCount;
    std::mt19937 m_generator;
};

} // namespace yx
