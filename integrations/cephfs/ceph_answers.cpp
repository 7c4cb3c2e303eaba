#include "integrations/cephfs/ceph_answers.h"

#include <exception>
#include <string_view>

#include <nlohmann/json.hpp>

#include "yx/error.h"
#include "yx/internal/stream_error.h"

namespace kelm::ceph {

namespace {

using Json = nlohmann::json;

/// Letters of capabilities, and what each lets a client do.
constexpr char kRead = 'r';
constexpr char kWrite = 'w';
constexpr char kBuffer = 'b';
constexpr char kExclusive = 'x';

/// Runs `parse` on an answer.
template <class Parse>
auto parseAnswer(std::string const& answer, yx::CURI const& uri, Parse const& parse) {
    try {
        return parse(Json::parse(answer));
    } catch (std::exception const&) {
        throw yx::CIOError(yx::CIOError::IOFailure,
                           "The metadata server's answer is not understood.",
                           yx::detail::makeUriProps(uri), nullptr);
    }
}

/// A member that may be missing, and is a text or a number.
std::string readText(Json const& object, char const* name) {
    auto const found = object.find(name);
    if (found == object.end())
        return "";
    return found->is_string() ? found->get<std::string>() : found->dump();
}

CephClient parseClient(Json const& entry) {
    CephClient client;
    client.number = entry.at("id").get<__int64>();
    // One without has neither told its name nor anything else.
    Json const metadata = entry.value("client_metadata", Json::object_t());
    client.host = readText(metadata, "hostname");
    client.user = readText(metadata, "entity_id");
    client.process = readText(metadata, "pid");
    client.uuid = readText(metadata, "uuid");
    if (entry.contains("uptime"))
        client.connectedSeconds = static_cast<__int64>(entry.at("uptime").get<double>());
    client.isMissed = entry.value("state", "") == "stale";
    return client;
}

/// What a text of capabilities has of the file's content, such as "crw" of "pAsLsXsFcrw".
std::string_view findContentLetters(std::string_view capabilities) {
    std::size_t const begin = capabilities.find('F');
    if (begin == std::string_view::npos)
        return {};
    std::string_view const rest = capabilities.substr(begin + 1);
    return rest.substr(0, rest.find_first_of("ALX"));
}

bool hasLetter(std::string_view letters, char letter) {
    return letters.find(letter) != std::string_view::npos;
}

CephFileUse parseFileUse(Json const& entry) {
    auto const wanted = entry.at("wanted").get<std::string>();
    auto const issued = entry.at("issued").get<std::string>();
    std::string_view const wantedContent = findContentLetters(wanted);
    std::string_view const issuedContent = findContentLetters(issued);
    CephFileUse use;
    use.client = entry.at("client_id").get<__int64>();
    use.isOpenForWriting = hasLetter(wantedContent, kWrite);
    use.isOpen = use.isOpenForWriting || hasLetter(wantedContent, kRead);
    // Whoever may change the owner or the names alone is waited for, too.
    use.mayHaveChanges = hasLetter(issued, kExclusive) || hasLetter(issuedContent, kWrite) ||
                         hasLetter(issuedContent, kBuffer);
    return use;
}

} // namespace

std::vector<CephClient> parseClients(std::string const& answer, yx::CURI const& uri) {
    return parseAnswer(answer, uri, [](Json const& list) {
        std::vector<CephClient> clients;
        for (Json const& entry : list.get<Json::array_t>())
            clients.push_back(parseClient(entry));
        return clients;
    });
}

std::vector<CephFileUse> parseFileUses(std::string const& answer, yx::CURI const& uri) {
    if (answer.empty())
        return {};
    return parseAnswer(answer, uri, [](Json const& inodes) {
        std::vector<CephFileUse> uses;
        for (Json const& entry : inodes.at(0).at("client_caps").get<Json::array_t>())
            uses.push_back(parseFileUse(entry));
        return uses;
    });
}

} // namespace kelm::ceph
