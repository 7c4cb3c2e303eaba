#include "host/system/key_derivation.h"

#include "krym/derive_key.h"

namespace kelm::host {

TooManyRoundsError::TooManyRoundsError(int rounds, int maxRounds)
    : CError("The key of the disk takes " + yx::toString(rounds) + " rounds to derive; at most " +
                 yx::toString(maxRounds) + " are allowed.",
             "", -1, yx::CProps(), nullptr) {}

std::shared_ptr<yx::CError const> TooManyRoundsError::clone() const {
    return std::make_shared<TooManyRoundsError>(*this);
}

KeyDerivationWatch::KeyDerivationWatch(CancelFlag const* cancel, int maxRounds)
    : m_before(krym::setKeyDerivationHook([cancel, maxRounds](int rounds) {
          if (cancel)
              cancel->check();
          if (rounds > maxRounds)
              throw TooManyRoundsError(rounds, maxRounds);
      })) {}

KeyDerivationWatch::~KeyDerivationWatch() {
    krym::setKeyDerivationHook(m_before);
}

} // namespace kelm::host
