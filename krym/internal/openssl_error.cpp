#include "krym/internal/openssl_error.h"

#include <array>

#include <openssl/err.h>

#include "yx/error.h"

namespace krym {

void throwOpenSSLError(char const* function) {
    // The newest entry belongs to this failure; older ones may be left over from anyone.
    std::array<char, 256> words{};
    ERR_error_string_n(ERR_peek_last_error(), words.data(), words.size());
    ERR_clear_error();
    throw yx::CError(yx::String("OpenSSL ") + function + " failed: " + words.data(), "", -1,
                     yx::CProps(), nullptr);
}

} // namespace krym
