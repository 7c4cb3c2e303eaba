#include "integrations/s3/folder_listing.h"

#include <cerrno>
#include <map>

#include "integrations/s3/escaped_text.h"
#include "integrations/s3/http_status.h"
#include "integrations/s3/server_error.h"
#include "integrations/s3/xml_text.h"
#include "yx/internal/file_error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

namespace {

constexpr std::size_t kMaxListBytes = std::size_t{16} << 20;

std::string makePrefix(ObjectLocation const& folder) {
    return folder.key.empty() || folder.key.ends_with('/') ? folder.key : folder.key + "/";
}

HTTPAnswer askForPage(ObjectServer& server, ObjectLocation const& folder, QueryParameters query,
                      char const* beginning, yx::CURI const& uri) {
    ObjectRequest request;
    request.location = folder;
    request.location.key.clear();
    request.query = std::move(query);
    request.query.emplace_back("list-type", "2");
    request.query.emplace_back("delimiter", "/");
    request.query.emplace_back("encoding-type", "url");
    request.query.emplace_back("prefix", makePrefix(folder));
    request.maxBodyBytes = kMaxListBytes;
    request.beginning = beginning;
    return server.send(request, uri);
}

/// The names behind the prefix, and what they are.
class NameCollector {
public:
    explicit NameCollector(std::string prefix) : m_prefix(std::move(prefix)) {}

    void addPage(std::string_view xml) {
        for (std::string_view const object : findElements(xml, "Contents"))
            add(readKey(object, "Key"), host::FileKind::File);
        for (std::string_view const folder : findElements(xml, "CommonPrefixes"))
            add(readKey(folder, "Prefix"), host::FileKind::Folder);
    }

    /// Whether there was anything, be it the folder's own object.
    bool isAny() const { return m_isAny; }

    std::vector<host::FolderEntry> getEntries() const {
        std::vector<host::FolderEntry> entries;
        for (auto const& [name, kind] : m_names)
            entries.push_back({name, kind});
        return entries;
    }

private:
    static std::string readKey(std::string_view xml, std::string_view element) {
        std::string const text = findText(xml, element).value_or("");
        return unescape(text, true).value_or(text);
    }

    void add(std::string const& key, host::FileKind kind) {
        if (!key.starts_with(m_prefix))
            return;
        m_isAny = true;
        std::string name = key.substr(m_prefix.size());
        if (kind == host::FileKind::Folder && name.ends_with('/'))
            name.pop_back();
        bool const isName = !name.empty() && name != "." && name != ".." &&
                            name.find('/') == std::string::npos &&
                            name.find('\0') == std::string::npos;
        if (isName && (kind == host::FileKind::File || !m_names.contains(name)))
            m_names[name] = kind;
    }

    std::string m_prefix;
    std::map<std::string, host::FileKind> m_names;
    bool m_isAny = false;
};

} // namespace

std::vector<host::FolderEntry> listFolder(ObjectServer& server, ObjectLocation const& folder,
                                          yx::CURI const& uri) {
    NameCollector names(makePrefix(folder));
    std::string continuation;
    while (true) {
        QueryParameters query;
        if (!continuation.empty())
            query.emplace_back("continuation-token", continuation);
        HTTPAnswer const answer = askForPage(server, folder, query, kCannotList, uri);
        if (!isSuccess(answer.status))
            throw makeAnswerError(kCannotList, answer, uri);
        if (answer.isTooLong || findElements(answer.body, "ListBucketResult").empty())
            throw makeServerError(kCannotList, "The server's answer is no list.", uri);
        names.addPage(answer.body);
        std::string const next = findText(answer.body, "NextContinuationToken").value_or("");
        if (findText(answer.body, "IsTruncated").value_or("false") != "true")
            break;
        // A list that never ends would repeat itself.
        if (next.empty() || next == continuation)
            throw makeServerError(kCannotList, "The server's list breaks off.", uri);
        continuation = next;
    }
    if (!names.isAny() && !folder.key.empty()) {
        throw makeFileError(yx::detail::FileAction::Query, ENOENT, yx::detail::makeUriProps(uri));
    }
    return names.getEntries();
}

std::optional<std::vector<host::FolderEntry>> tryListFolder(ObjectServer& server,
                                                            ObjectLocation const& folder,
                                                            yx::CURI const& uri) {
    HTTPAnswer const answer = askForPage(server, folder, {}, kCannotQuery, uri);
    bool const isWhole = isSuccess(answer.status) && !answer.isTooLong &&
                         !findElements(answer.body, "ListBucketResult").empty() &&
                         findText(answer.body, "IsTruncated") == "false";
    if (!isWhole)
        return std::nullopt;
    NameCollector names(makePrefix(folder));
    names.addPage(answer.body);
    return names.getEntries();
}

bool isFolder(ObjectServer& server, ObjectLocation const& location, yx::CURI const& uri) {
    HTTPAnswer const answer = askForPage(server, location, {{"max-keys", "1"}}, kCannotQuery, uri);
    if (answer.status == kNotFound ||
        (answer.status == kForbidden && findErrorCode(answer) == "AccessDenied"))
        return false;
    if (!isSuccess(answer.status))
        throw makeAnswerError(kCannotQuery, answer, uri);
    return location.key.empty() || !findElements(answer.body, "Contents").empty() ||
           !findElements(answer.body, "CommonPrefixes").empty();
}

} // namespace kelm::s3
