#pragma once

#include <functional>

#include "host/system/cancel.h"
#include "yx/error.h"

namespace kelm::host {

/// A disk's key takes more rounds to derive than are allowed: "The key of the disk takes 2147483647
/// rounds to derive; at most 10000000 are allowed." with code -1.
class TooManyRoundsError : public yx::CError {
public:
    TooManyRoundsError(int rounds, int maxRounds);
    std::shared_ptr<yx::CError const> clone() const override;
};

/// Watches all derivations of keys in the process for as long as it lives. The descriptor of a disk
/// says how many rounds its key takes, up to 2^31, which is hours of work; so each derivation is
/// refused beyond a limit, and can be interrupted. One at a time in a process.
class KeyDerivationWatch {
public:
    /// Some half a minute of work. New disks take 10000 rounds.
    static constexpr int kDefaultMaxRounds = 10'000'000;

    /// A derivation throws `CancelledError` soon after `cancel` is set, and `TooManyRoundsError`
    /// before it begins if it asks for more than `maxRounds`. `cancel` must outlive the object, and
    /// may be null.
    explicit KeyDerivationWatch(CancelFlag const* cancel, int maxRounds = kDefaultMaxRounds);
    KeyDerivationWatch(KeyDerivationWatch const&) = delete;
    KeyDerivationWatch& operator=(KeyDerivationWatch const&) = delete;
    ~KeyDerivationWatch();

private:
    std::function<void(int)> m_before;
};

} // namespace kelm::host
