#pragma once

namespace krym {

/// Throws `yx::CError` for the failed OpenSSL call of that name, code -1: "OpenSSL ", the name,
/// " failed: " and OpenSSL's own words. Empties the thread's OpenSSL error queue.
[[noreturn]] void throwOpenSSLError(char const* function);

} // namespace krym
