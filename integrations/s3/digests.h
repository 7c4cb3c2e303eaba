#pragma once

#include <string>
#include <string_view>

namespace kelm::s3 {

/// The bytes of digests. A failure of the library that makes them is `yx::CError`.
std::string sha256(std::string_view data);
std::string md5(std::string_view data);
std::string hmacSHA256(std::string_view key, std::string_view data);

/// Base64 with padding, without line ends.
std::string toBase64(std::string_view bytes);

} // namespace kelm::s3
