#include "integrations/cephfs/client_note.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kelm::ceph {

namespace {

constexpr char kNamePrefix[] = "ceph-";
constexpr mode_t kFolderMode = 0700;
constexpr mode_t kNoteMode = 0600;
constexpr std::size_t kUUIDLength = 36;

/// Two that make and remove the folder or a note at the same time each get on in a few rounds.
constexpr int kMaxRounds = 100;

std::string readFirstLine(char const* path) {
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

std::string drawUUID() {
    return readFirstLine("/proc/sys/kernel/random/uuid");
}

/// Whether the folder is the user's own and nobody else may write to it.
bool isSafeFolder(std::string const& folder) {
    struct stat status {};
    return ::lstat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
           status.st_uid == ::geteuid() && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/// Where notes may be, the best place first.
std::vector<std::string> listFolders() {
    std::vector<std::string> folders;
    std::string const user = std::to_string(::geteuid());
    if (::geteuid() == 0) {
        folders.emplace_back("/run/kelm");
    } else if (char const* const runtimeFolder = std::getenv("XDG_RUNTIME_DIR");
               runtimeFolder && *runtimeFolder == '/') {
        folders.push_back(std::string(runtimeFolder) + "/kelm");
    } else {
        folders.push_back("/run/user/" + user + "/kelm");
    }
    std::error_code error;
    std::filesystem::path const temporary = std::filesystem::temp_directory_path(error);
    if (!error)
        folders.push_back((temporary / ("kelm-" + user)).string());
    return folders;
}

/// The kernel that locks belong to: that of this machine, since it was started.
std::string describeSystem() {
    return readFirstLine("/proc/sys/kernel/random/boot_id");
}

std::string describe(ClientNote::Site const& site) {
    return describeSystem() + "\n" + site.clusterID + "\n" + std::to_string(site.fileSystemNumber) +
           "\n" + site.user + "\n";
}

/// The content of an open note, which is small.
std::string readNote(int descriptor) {
    std::array<char, 4096> content{};
    ssize_t const count = ::pread(descriptor, content.data(), content.size(), 0);
    return std::string(content.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
}

/// Whether an open file still has its name.
bool isStillNamed(int descriptor) {
    struct stat status {};
    return ::fstat(descriptor, &status) == 0 && status.st_nlink > 0;
}

bool isNoteName(std::string const& name) {
    return name.starts_with(kNamePrefix) && name.size() == sizeof(kNamePrefix) - 1 + kUUIDLength;
}

int openNote(std::string const& path) {
    return ::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
}

} // namespace

ClientNote::ClientNote() {
    for (std::string const& folder : listFolders()) {
        for (int round = 0; round < kMaxRounds; ++round) {
            if (::mkdir(folder.c_str(), kFolderMode) != 0 && errno != EEXIST)
                break;
            if (!isSafeFolder(folder) && errno != ENOENT)
                break;
            if (tryMake(folder))
                return;
        }
    }
    m_uuid = drawUUID();
}

ClientNote::ClientNote(std::string folder, std::string uuid, int descriptor)
    : m_folder(std::move(folder)), m_uuid(std::move(uuid)), m_descriptor(descriptor) {}

ClientNote::ClientNote(ClientNote&& other) noexcept
    : m_folder(std::move(other.m_folder)),
      m_uuid(std::move(other.m_uuid)),
      m_descriptor(std::exchange(other.m_descriptor, -1)) {}

ClientNote::~ClientNote() {
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool ClientNote::tryMake(std::string const& folder) {
    m_uuid = drawUUID();
    m_folder = folder;
    m_descriptor = ::open(getPath().c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kNoteMode);
    if (m_descriptor < 0)
        return false;
    // Before it was locked, another process may have taken it for one of the dead.
    if (::flock(m_descriptor, LOCK_EX | LOCK_NB) == 0 && isStillNamed(m_descriptor))
        return true;
    ::close(std::exchange(m_descriptor, -1));
    return false;
}

std::string ClientNote::getPath() const {
    return m_folder + "/" + kNamePrefix + m_uuid;
}

void ClientNote::setSite(Site const& site) noexcept {
    if (m_descriptor < 0)
        return;
    std::string const content = describe(site);
    // A note that cannot be written is one of a client that nobody clears away.
    if (::pwrite(m_descriptor, content.data(), content.size(), 0) !=
        static_cast<ssize_t>(content.size()))
        remove();
}

void ClientNote::remove() noexcept {
    if (m_descriptor < 0)
        return;
    ::unlink(getPath().c_str());
    ::close(std::exchange(m_descriptor, -1));
    // Does nothing while there are other notes.
    ::rmdir(m_folder.c_str());
}

std::vector<ClientNote> ClientNote::takeThoseOfTheDead(Site const& site) {
    std::vector<ClientNote> notes;
    std::string const wanted = describe(site);
    for (std::string const& folder : listFolders()) {
        if (!isSafeFolder(folder))
            continue;
        std::error_code error;
        std::filesystem::directory_iterator entry(folder, error);
        for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
            std::string const name = entry->path().filename().string();
            if (!isNoteName(name))
                continue;
            int const descriptor = openNote(entry->path().string());
            if (descriptor < 0)
                continue;
            ClientNote note(folder, name.substr(sizeof(kNamePrefix) - 1), descriptor);
            if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0 || !isStillNamed(descriptor))
                continue;
            std::string const content = readNote(descriptor);
            // It died before it was a client of anything, or is about to be made and draws again.
            if (content.empty())
                note.remove();
            else if (content == wanted)
                notes.push_back(std::move(note));
        }
    }
    return notes;
}

std::optional<bool> ClientNote::findWhetherLives(std::string const& uuid) {
    // It comes from the cluster, to which anybody may have told it.
    bool const isUUID = uuid.size() == kUUIDLength &&
                        uuid.find_first_not_of("0123456789abcdef-") == std::string::npos;
    if (!isUUID)
        return std::nullopt;
    std::string const name = kNamePrefix + uuid;
    for (std::string const& folder : listFolders()) {
        if (!isSafeFolder(folder))
            continue;
        int const descriptor = openNote(std::string(folder).append("/").append(name));
        if (descriptor < 0)
            continue;
        ClientNote const note(folder, uuid, descriptor);
        if (::flock(descriptor, LOCK_EX | LOCK_NB) != 0)
            return true;
        // A note of a time before the machine was started says nothing of a machine of that name.
        if (readNote(descriptor).starts_with(describeSystem() + "\n"))
            return false;
    }
    return std::nullopt;
}

} // namespace kelm::ceph
