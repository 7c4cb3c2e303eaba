#pragma once

#include <mutex>
#include <vector>

#include "krym/krym.h"
#include "yx/buffer.h"

namespace kelm::host {

/// Keeps every key that is derived in the process for as long as it lives, and wipes it then. The
/// disks of a chain mostly share password, salt and rounds, and so one derivation opens all of
/// them. A process can have only one such object at a time.
class DerivedKeys : public krym::IDerivedKeys {
public:
    DerivedKeys();
    DerivedKeys(DerivedKeys const&) = delete;
    DerivedKeys& operator=(DerivedKeys const&) = delete;
    ~DerivedKeys() override;

    bool tryGet(krym::KeyDerivation const& derivation, void* key) override;

    /// The last key that was put for a derivation is the one that `tryGet` gives. So a disk whose
    /// password is another than the one it is going to be opened with can be given the key of its
    /// own.
    void put(krym::KeyDerivation const& derivation, void const* key) override;

private:
    using Secret = yx::TCryptBuffer<unsigned char>;

    struct Entry {
        Secret password;
        std::vector<unsigned char> salt;
        int iterations;
        Secret key;

        bool isFor(krym::KeyDerivation const& derivation) const;
    };

    std::mutex m_mutex;
    std::vector<Entry> m_entries;
    krym::IDerivedKeys* m_before;
};

} // namespace kelm::host
