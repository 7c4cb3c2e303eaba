#include "integrations/cephfs/ceph_mount.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <set>
#include <sstream>
#include <system_error>

#include <cephfs/libcephfs.h>
#include <fcntl.h>
#include <unistd.h>

#include "integrations/cephfs/cluster_error.h"
#include "yx/internal/stream_error.h"
#include "yx/system_error.h"

namespace kelm::ceph {

namespace {

/// Ceph's own default would let each client take 200 MiB.
constexpr char kDefaultCacheSize[] = "209715200";
constexpr char kCacheSize[] = "33554432";
constexpr char kMaxDirtySize[] = "16777216";

[[noreturn]] void throwUnreachable(int result, char const* words, yx::CURI const& uri) {
    int const errorNumber = -result;
    if (result == -ECANCELED)
        throw makeClusterError("", result, yx::detail::makeUriProps(uri));
    std::string const message = std::string("Cannot reach the cluster: ") + words + " (" +
                                std::generic_category().message(errorNumber) + ").";
    throw yx::CIOError(yx::getSystemErrorCode(errorNumber), yx::String::fromUTF8(message),
                       yx::detail::makeUriProps(uri), nullptr);
}

char const* getReasonOfInit(int result) {
    switch (-result) {
    case EACCES:
    case EPERM:
        return "it does not know the user, or the key for the user is missing or wrong";
    case ETIMEDOUT:
        return "it does not answer";
    default:
        return "its client cannot be started";
    }
}

char const* getReasonOfMount(int result) {
    switch (-result) {
    case ENOENT:
        return "it has no file system of that name";
    case EACCES:
    case EPERM:
        return "the user may not use the root folder of the file system";
    case ETIMEDOUT:
        return "it does not answer";
    default:
        return "the file system cannot be mounted";
    }
}

/// The user that an option of CEPH_ARGS names; the client's library leaves that to programs.
std::string findUserInEnvironment() {
    char const* const arguments = std::getenv("CEPH_ARGS");
    std::istringstream words(arguments ? arguments : "");
    std::string user;
    for (std::string word; words >> word;) {
        size_t const equals = word.find('=');
        std::string const option = word.substr(0, equals);
        bool const isID = option == "--id" || option == "--user" || option == "-i";
        bool const isName = option == "--name" || option == "-n";
        if (!isID && !isName)
            continue;
        std::string value;
        if (equals == std::string::npos)
            words >> value;
        else
            value = word.substr(equals + 1);
        user = isName ? value.substr(value.find('.') + 1) : value;
    }
    return user;
}

/// Without dot segments and without a separator at the end.
std::string normalizePath(std::string const& path) {
    std::string normal = std::filesystem::path(path).lexically_normal().string();
    if (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}

constexpr char kForkedMessage[] =
    "The connection to the cluster belongs to the process that this one was forked from.";

[[noreturn]] void throwForked(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::NotSupported, kForkedMessage, yx::detail::makeUriProps(uri),
                       nullptr);
}

/// The connections of this process, and of which process they are: a child inherits the numbers, but
/// not the threads that all connections share.
std::atomic<int> openMounts{0};
std::atomic<pid_t> processOfMounts{0};

void requireUnforked(yx::CURI const& uri) {
    if (openMounts > 0 && processOfMounts != ::getpid())
        throwForked(uri);
    processOfMounts = ::getpid();
}

/// The longest that a file may become; 0 or a negative `errno` value.
int findMaxFileLength(ceph_mount_info* client, __int64& lengthBytes) {
    int const root = ceph_open(client, "/", O_RDONLY | O_DIRECTORY, 0);
    if (root < 0)
        return root;
    // The client has no question for it. But before it refuses to write to what is open for reading
    // it refuses to write past the longest length, by what it was told when it was mounted; so
    // nothing is sent and nothing can be written.
    __int64 fits = 0;
    __int64 isTooLong = std::numeric_limits<__int64>::max();
    while (isTooLong - fits > 1) {
        __int64 const length = fits + (isTooLong - fits) / 2;
        char const byte = 0;
        bool const isRefused = ceph_write(client, root, &byte, 1, length - 1) == -EFBIG;
        (isRefused ? isTooLong : fits) = length;
    }
    lengthBytes = fits;
    return ceph_close(client, root);
}

/// Has a metadata server obey a command; what the call returns.
int tellServer(ceph_mount_info* client, std::string const& server, std::string const& command,
               std::string& answer) {
    std::array<char const*, 1> commands{command.c_str()};
    char* output = nullptr;
    char* words = nullptr;
    size_t outputBytes = 0;
    size_t wordsBytes = 0;
    int const result = ceph_mds_command(client, server.c_str(), commands.data(), commands.size(),
                                        nullptr, 0, &output, &outputBytes, &words, &wordsBytes);
    if (output)
        answer.assign(output, outputBytes);
    ceph_buffer_free(output);
    ceph_buffer_free(words);
    return result;
}

/// The connections that a process takes leave of when it ends, if their owners have not: a client
/// that ends without would be missed by the cluster, and might not have written all.
class LivingMounts {
public:
    /// Lives as long as the process: owners may take leave later than this does.
    static LivingMounts& get() {
        static LivingMounts* const mounts = new LivingMounts;
        // Made after the first client, whose library ends what it needs later then.
        static LeaveAtExit const atExit;
        return *mounts;
    }

    void add(CephMount& mount) {
        std::lock_guard const guard(m_mutex);
        m_mounts.insert(&mount);
    }
    void remove(CephMount& mount) {
        std::lock_guard const guard(m_mutex);
        m_mounts.erase(&mount);
    }

private:
    struct LeaveAtExit {
        LeaveAtExit() = default;
        LeaveAtExit(LeaveAtExit const&) = delete;
        LeaveAtExit& operator=(LeaveAtExit const&) = delete;
        ~LeaveAtExit() { get().leaveAll(); }
    };

    void leaveAll() {
        std::lock_guard const guard(m_mutex);
        for (CephMount* const mount : m_mounts)
            mount->leave();
    }

    std::mutex m_mutex;
    std::set<CephMount*> m_mounts;
};

/// The mask for the modes of new files. Asking the system for it would change it for a moment.
mode_t readCreationMask() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Umask:"))
            return static_cast<mode_t>(std::strtoul(line.c_str() + 6, nullptr, 8));
    }
    return 022;
}

} // namespace

CephMount::CephMount(CephLocation const& location, yx::CURI const& uri,
                     std::shared_ptr<CephCalls> calls)
    : m_calls(std::move(calls)), m_process(::getpid()) {
    requireUnforked(uri);
    m_site.user = location.user.empty() ? findUserInEnvironment() : location.user;
    ++openMounts;
    try {
        connect(location, uri);
        LivingMounts::get().add(*this);
    } catch (...) {
        leave();
        throw;
    }
    clearAwayTheDead();
}

CephMount::~CephMount() {
    if (!isOwnProcess())
        return;
    LivingMounts::get().remove(*this);
    leave();
}

bool CephMount::isOwnProcess() const noexcept {
    return m_process == ::getpid();
}

bool CephMount::isUsable() const noexcept {
    return isOwnProcess() && !m_hasLeft;
}

void CephMount::leave() noexcept {
    if (!isOwnProcess() || m_hasLeft.exchange(true))
        return;
    int const result = m_client ? m_calls->make([client = m_client] {
        ceph_shutdown(client);
        return 0;
    })
                                : 0;
    // A client that was given up is left alone, since its calls may never return. It lives as long
    // as the process does.
    if (result == 0)
        --openMounts;
    if (m_note && result == 0)
        m_note->remove();
    else if (m_note)
        m_note->keepLocked();
}

int CephMount::call(yx::CURI const& uri, Call const& call) const {
    if (!isOwnProcess())
        throwForked(uri);
    return tryCall(call);
}

int CephMount::tryCall(Call const& call) const noexcept {
    if (!isUsable())
        return -ENOTCONN;
    return m_calls->make([client = m_client, call] { return call(client); });
}

bool CephMount::clearAwayTheDead() noexcept {
    try {
        std::lock_guard const guard(m_clearingMutex);
        bool hasCleared = false;
        for (ClientNote& note : ClientNote::takeThoseOfTheDead(m_site)) {
            int const result = tryCall([uuid = note.getUUID()](ceph_mount_info* client) {
                int const started = ceph_start_reclaim(client, uuid.c_str(), CEPH_RECLAIM_RESET);
                ceph_finish_reclaim(client);
                return started;
            });
            hasCleared = hasCleared || result == 0;
            // That the cluster does not know the client is as good.
            if (result == 0 || result == -ENOENT)
                note.remove();
        }
        return hasCleared;
    } catch (std::exception const&) {
        return false;
    }
}

void CephMount::connect(CephLocation const& location, yx::CURI const& uri) {
    m_note.emplace();
    startClient(location, uri);
    enterFolder(location, uri);
    ceph_umask(m_client, readCreationMask());
    m_site.clusterID = getSetting("fsid");
    m_site.fileSystemNumber = ceph_get_fs_cid(m_client);
    m_note->setSite(m_site);
}

void CephMount::startClient(CephLocation const& location, yx::CURI const& uri) {
    if (int const result =
            ceph_create(&m_client, m_site.user.empty() ? nullptr : m_site.user.c_str());
        result != 0)
        throwUnreachable(result, "its client cannot be made", uri);
    // Errors are told by exceptions. What the client itself has to say goes to its log.
    ceph_conf_set(m_client, "log_to_stderr", "false");
    ceph_conf_set(m_client, "err_to_stderr", "false");
    // All can be set by CEPH_ARGS too, so no file need be there unless one is named.
    if (int const result = ceph_conf_read_file(m_client, nullptr);
        result != 0 && (result != -ENOENT || std::getenv("CEPH_CONF")))
        throwUnreachable(result, "its settings (ceph.conf) cannot be read", uri);
    if (int const result = ceph_conf_parse_env(m_client, nullptr); result != 0)
        throwUnreachable(result, "the settings in CEPH_ARGS are not valid", uri);
    if (getSetting("client_oc_size") == kDefaultCacheSize) {
        ceph_conf_set(m_client, "client_oc_size", kCacheSize);
        ceph_conf_set(m_client, "client_oc_max_dirty", kMaxDirtySize);
    }
    if (!location.fileSystem.empty())
        ceph_conf_set(m_client, "client_fs", location.fileSystem.c_str());
    if (int const result = call(uri, ceph_init); result != 0)
        throwUnreachable(result, getReasonOfInit(result), uri);
    ceph_set_uuid(m_client, m_note->getUUID().c_str());
}

/// A client forgets its UUID when it cannot mount a folder, and does not survive that it is set again.
void CephMount::restartClient(CephLocation const& location, yx::CURI const& uri) {
    int const result = call(uri, [](ceph_mount_info* client) {
        ceph_shutdown(client);
        return 0;
    });
    if (result != 0)
        throwUnreachable(result, "its client cannot be ended", uri);
    m_client = nullptr;
    startClient(location, uri);
}

void CephMount::enterFolder(CephLocation const& location, yx::CURI const& uri) {
    auto const tryToMount = [this, &uri](std::string const& folder) {
        return call(
            uri, [folder](ceph_mount_info* client) { return ceph_mount(client, folder.c_str()); });
    };
    int const result = tryToMount("/");
    if (result == 0)
        return;
    std::string const wholePath = normalizePath(location.path);
    size_t end = 0;
    while ((result == -EPERM || result == -EACCES) && end < wholePath.size()) {
        end = std::min(wholePath.find('/', end + 1), wholePath.size());
        m_folder = wholePath.substr(0, end);
        restartClient(location, uri);
        if (tryToMount(m_folder) == 0)
            return;
    }
    throwUnreachable(result, getReasonOfMount(result), uri);
}

std::string CephMount::toClientPath(std::string const& path, yx::CURI const& uri) const {
    if (m_folder.empty())
        return path;
    // The client would take ".." at its root for the root.
    std::string const wholePath = normalizePath(path);
    if (wholePath == m_folder)
        return "/";
    if (wholePath.starts_with(m_folder + "/"))
        return wholePath.substr(m_folder.size());
    throw yx::CIOError(yx::CIOError::AccessDenied,
                       "The user may use " + yx::String::fromUTF8(m_folder) +
                           " of the file system alone.",
                       yx::detail::makeUriProps(uri), nullptr);
}

std::string CephMount::fromClientPath(std::string const& path) const {
    if (m_folder.empty())
        return path;
    return path == "/" ? m_folder : m_folder + path;
}

std::string CephMount::getSetting(char const* name) const {
    std::array<char, 256> value{};
    return ceph_conf_get(m_client, name, value.data(), value.size()) == 0 ? value.data() : "";
}

__int64 CephMount::getNumber() const {
    return static_cast<__int64>(ceph_get_instance_id(m_client));
}

CephMount::Answer<std::string> CephMount::tellMetadataServer(std::string const& server,
                                                             std::string const& command,
                                                             yx::CURI const& uri) const {
    return ask<std::string>(uri, [=](ceph_mount_info* client, std::string& answer) {
        return tellServer(client, server, command, answer);
    });
}

__int64 CephMount::getMaxFileLengthBytes(yx::CURI const& uri) const {
    Answer<__int64> const answer = ask<__int64>(uri, findMaxFileLength);
    if (answer.result < 0)
        throw makeClusterError(yx::detail::FileAction::Query, answer.result,
                               yx::detail::makeUriProps(uri));
    return answer.value;
}

} // namespace kelm::ceph
