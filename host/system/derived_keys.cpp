#include "host/system/derived_keys.h"

#include <algorithm>
#include <cstring>

namespace kelm::host {

namespace {

bool areSameBytes(unsigned char const* kept, std::size_t keptBytes, void const* given,
                  int givenBytes) {
    return keptBytes == static_cast<std::size_t>(givenBytes) &&
           (keptBytes == 0 || std::memcmp(kept, given, keptBytes) == 0);
}

yx::TCryptBuffer<unsigned char> copySecret(void const* bytes, int sizeBytes) {
    yx::TCryptBuffer<unsigned char> copy(sizeBytes, -1);
    if (sizeBytes > 0)
        std::memcpy(copy.getData(), bytes, static_cast<std::size_t>(sizeBytes));
    return copy;
}

} // namespace

DerivedKeys::DerivedKeys() : m_before(krym::setDerivedKeys(this)) {}

DerivedKeys::~DerivedKeys() {
    krym::setDerivedKeys(m_before);
}

bool DerivedKeys::Entry::isFor(krym::KeyDerivation const& derivation) const {
    return iterations == derivation.iterations && key.getUsed() == derivation.keySizeBytes &&
           areSameBytes(salt.data(), salt.size(), derivation.salt, derivation.saltSizeBytes) &&
           areSameBytes(password.getData(), static_cast<std::size_t>(password.getUsed()),
                        derivation.password, derivation.passwordSizeBytes);
}

bool DerivedKeys::tryGet(krym::KeyDerivation const& derivation, void* key) {
    std::lock_guard const lock(m_mutex);
    auto const found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [&](Entry const& entry) { return entry.isFor(derivation); });
    if (found == m_entries.end())
        return false;
    std::memcpy(key, found->key.getData(), static_cast<std::size_t>(found->key.getUsed()));
    return true;
}

void DerivedKeys::put(krym::KeyDerivation const& derivation, void const* key) {
    std::lock_guard const lock(m_mutex);
    std::erase_if(m_entries, [&](Entry const& entry) { return entry.isFor(derivation); });
    auto const* const salt = static_cast<unsigned char const*>(derivation.salt);
    m_entries.push_back({copySecret(derivation.password, derivation.passwordSizeBytes),
                         {salt, salt + derivation.saltSizeBytes},
                         derivation.iterations,
                         copySecret(key, derivation.keySizeBytes)});
}

} // namespace kelm::host
