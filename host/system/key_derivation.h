#pragma once

#include <functional>

#include "host/system/cancel.h"
#include "yx/error.h"

namespace kelm::host {

/// A disk's key takes more rounds to derive than are allowed: "The key of the disk takes 2147483647
/// rounds to derive; at most 10000000 are allowed." with code -1.
class TooManyRoundsError : public yx::CError {
public:
    /// The message is made of both numbers.
    TooManyRoundsError(int rounds, int maxRounds);
    std::shared_ptr<yx::CError const> clone() const override;
};

/// Limits all derivations of keys in the process, and makes them interruptible, for as long as it
/// lives. The number of rounds comes from the disk's descriptor and may be up to 2^31, which is
/// hours of work. A process can have only one such object at a time.
class KeyDerivationWatch {
public:
    /// About half a minute of work. See `measureKeyRounds` for what new disks take.
    static constexpr int kDefaultMaxRounds = 10'000'000;

    /// A derivation of more than `maxRounds` throws `TooManyRoundsError` before it begins. One that
    /// is under way throws `CancelledError` soon after `cancel` is set. `cancel` may be null;
    /// otherwise it must outlive the object.
    explicit KeyDerivationWatch(CancelFlag const* cancel, int maxRounds = kDefaultMaxRounds);
    KeyDerivationWatch(KeyDerivationWatch const&) = delete;
    KeyDerivationWatch& operator=(KeyDerivationWatch const&) = delete;
    ~KeyDerivationWatch();

private:
    std::function<void(int)> m_before;
};

} // namespace kelm::host
