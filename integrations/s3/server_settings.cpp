#include "integrations/s3/server_settings.h"

#include <algorithm>
#include <fstream>
#include <map>

#include "integrations/s3/escaped_text.h"
#include "yx/error.h"

namespace kelm::s3 {

namespace {

using Values = std::map<std::string, std::string>;

[[noreturn]] void throwBadSettings(std::string const& message) {
    constexpr __int64 kNoCode = -1;
    throw yx::CError(yx::String::fromUTF8("The settings for buckets are not valid: " + message), "",
                     kNoCode, yx::CProps(), nullptr);
}

/// A profile as the two files together describe it.
struct Profile {
    bool isThere = false;
    Values values;
};

/// "[name]" and "[profile name]" are both sections of the profile `name`.
std::string getProfileOfSection(std::string const& line) {
    constexpr std::string_view kKind = "profile";
    std::string name = trim(std::string_view(line).substr(1, line.find(']') - 1));
    if (name.starts_with(kKind) && name.size() > kKind.size() &&
        (name[kKind.size()] == ' ' || name[kKind.size()] == '\t'))
        name = trim(name.substr(kKind.size()));
    return name;
}

/// Adds what a file says of a profile. What is there already stays. Returns false if the file
/// cannot be read.
bool addFile(std::string const& path, std::string const& name, Profile& profile) {
    std::ifstream file(path);
    if (!file)
        return false;
    bool isWanted = false;
    for (std::string line; std::getline(file, line);) {
        std::string const text = trim(line);
        if (text.empty() || text.front() == '#' || text.front() == ';')
            continue;
        if (text.front() == '[') {
            isWanted = getProfileOfSection(text) == name;
            profile.isThere = profile.isThere || isWanted;
            continue;
        }
        // A line that is set in belongs to the setting above it.
        bool const isNested = line.front() == ' ' || line.front() == '\t';
        std::size_t const equals = text.find('=');
        if (isWanted && !isNested && equals != std::string::npos)
            profile.values.emplace(toLowerCase(trim(text.substr(0, equals))),
                                   trim(text.substr(equals + 1)));
    }
    return true;
}

class SettingsReader {
public:
    explicit SettingsReader(GetVariable const& getVariable) : m_getVariable(getVariable) {
        std::string const named = variable("AWS_PROFILE");
        std::string const name = named.empty() ? "default" : named;
        addOneOf("AWS_SHARED_CREDENTIALS_FILE", "credentials", name);
        addOneOf("AWS_CONFIG_FILE", "config", name);
        if (!named.empty() && !m_profile.isThere)
            throwBadSettings("there is no profile '" + named + "'.");
    }

    ServerSettings read() {
        ServerSettings settings;
        settings.keys = readKeys();
        std::string const region = firstOf({"AWS_REGION", "AWS_DEFAULT_REGION"}, "region");
        if (!region.empty())
            settings.region = region;
        readEndpoint(settings);
        settings.certificatesFile = firstOf({"AWS_CA_BUNDLE"}, "ca_bundle");
        return settings;
    }

private:
    std::string variable(char const* name) const {
        char const* const value = m_getVariable(name);
        return value ? trim(value) : "";
    }

    std::string ofProfile(char const* name) const {
        auto const found = m_profile.values.find(name);
        return found == m_profile.values.end() ? "" : found->second;
    }

    std::string firstOf(std::initializer_list<char const*> variables, char const* name) const {
        for (char const* const candidate : variables) {
            std::string value = variable(candidate);
            if (!value.empty())
                return value;
        }
        return ofProfile(name);
    }

    void addOneOf(char const* fileVariable, char const* usualName, std::string const& profile) {
        std::string const named = variable(fileVariable);
        if (!named.empty()) {
            if (!addFile(named, profile, m_profile))
                throwBadSettings(std::string("the file that ") + fileVariable +
                                 " names cannot be read.");
            return;
        }
        std::string const home = variable("HOME");
        if (!home.empty())
            addFile(home + "/.aws/" + usualName, profile, m_profile);
    }

    std::optional<AccessKeys> readKeys() const {
        AccessKeys keys{variable("AWS_ACCESS_KEY_ID"), variable("AWS_SECRET_ACCESS_KEY"),
                        variable("AWS_SESSION_TOKEN")};
        if (keys.id.empty() && keys.secret.empty()) {
            keys = {ofProfile("aws_access_key_id"), ofProfile("aws_secret_access_key"),
                    ofProfile("aws_session_token")};
        }
        if (keys.id.empty() && keys.secret.empty())
            return std::nullopt;
        if (keys.id.empty() || keys.secret.empty())
            throwBadSettings("of the access key and its secret only one is set.");
        return keys;
    }

    void readEndpoint(ServerSettings& settings) const {
        std::string const url =
            firstOf({"AWS_ENDPOINT_URL_S3", "AWS_ENDPOINT_URL"}, "endpoint_url");
        if (url.empty())
            return;
        std::size_t const colon = url.find("://");
        std::string const scheme = toLowerCase(url.substr(0, std::min(colon, url.size())));
        if (colon == std::string::npos || (scheme != "http" && scheme != "https"))
            throwBadSettings("the endpoint begins with neither http:// nor https://.");
        constexpr std::size_t kSlashesLength = 3;
        std::string const rest = url.substr(colon + kSlashesLength);
        std::size_t const slash = std::min(rest.find('/'), rest.size());
        settings.endpointScheme = scheme;
        settings.endpointHost = toLowerCase(rest.substr(0, slash));
        settings.endpointPath = rest.substr(slash);
        while (settings.endpointPath.ends_with('/'))
            settings.endpointPath.pop_back();
        bool const isHost = !settings.endpointHost.empty() &&
                            settings.endpointHost.find_first_not_of(
                                "abcdefghijklmnopqrstuvwxyz0123456789.-_:[]") == std::string::npos;
        if (!isHost || settings.endpointPath.find_first_of("?#% \\") != std::string::npos)
            throwBadSettings("the endpoint is no http://HOST[:PORT] or https://HOST[:PORT].");
    }

    GetVariable const& m_getVariable;
    Profile m_profile;
};

} // namespace

ServerSettings readServerSettings(GetVariable const& getVariable) {
    return SettingsReader(getVariable).read();
}

} // namespace kelm::s3
