#pragma once

#include <functional>
#include <optional>
#include <string>

#include "integrations/s3/request_signature.h"

namespace kelm::s3 {

/// How the server of buckets is reached, and as whom.
struct ServerSettings {
    /// Nothing for requests that are not signed.
    std::optional<AccessKeys> keys;

    std::string region = "us-east-1";

    /// "http" or "https", "HOST[:PORT]" and a path without a separator at its end, of a server of
    /// one's own; all empty for the usual one, whose name depends on bucket and region.
    std::string endpointScheme;
    std::string endpointHost;
    std::string endpointPath;

    /// A file with the certificates of authorities to trust in place of the system's; or empty.
    std::string certificatesFile;

    bool hasEndpoint() const { return !endpointHost.empty(); }
};

/// The value of a variable of the environment, null if it is not set.
using GetVariable = std::function<char const*(char const*)>;

/// Reads the settings that programs for buckets have in common:
///
/// - AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY, AWS_SESSION_TOKEN; else those of the profile
///   AWS_PROFILE ("default" if it is not set) in the files AWS_SHARED_CREDENTIALS_FILE and
///   AWS_CONFIG_FILE, by default ~/.aws/credentials and ~/.aws/config.
/// - AWS_REGION, AWS_DEFAULT_REGION, else `region` of the profile.
/// - AWS_ENDPOINT_URL_S3, AWS_ENDPOINT_URL, else `endpoint_url` of the profile.
/// - AWS_CA_BUNDLE, else `ca_bundle` of the profile.
///
/// A variable that is empty counts as not set. Throws `yx::CError` with a message that says what is
/// wrong, but never a value: a profile that was named and is nowhere, a key without the other one,
/// a file that was named and cannot be read, an endpoint that is no "http://HOST" or
/// "https://HOST".
ServerSettings readServerSettings(GetVariable const& getVariable);

} // namespace kelm::s3
