#include "tools/kelm/mount_record.h"

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/kelm/child_program.h"
#include "yx/error.h"

namespace kelm::tool {

namespace {

constexpr std::chrono::milliseconds kWaitStep{20};

/// The kernel lets go of an image a moment after its file system was unmounted.
constexpr int kMaxBusySteps = 500;
constexpr int kMaxServerSteps = 3000;

constexpr mode_t kOwnFolder = 0700;

yx::CProps pathProps(std::string const& path) {
    return yx::CProps().add("path", yx::String::fromUTF8(path));
}

/// One name for each folder, of one length.
std::string nameFor(std::string const& folder) {
    // FNV-1a.
    std::uint64_t hash = 0xCBF29CE484222325;
    for (char const letter : folder) {
        hash ^= static_cast<unsigned char>(letter);
        hash *= 0x100000001B3;
    }
    char text[32];
    std::snprintf(text, sizeof text, "mount-%016llx", static_cast<unsigned long long>(hash));
    return text;
}

std::string placeOfRecords() {
    char const* const folder = std::getenv("XDG_RUNTIME_DIR");
    return std::string(folder != nullptr && *folder == '/' ? folder : "/run") + "/kelm";
}

/// Which folder a name leads to; "" for none.
std::string identityOf(std::string const& folder) {
    struct stat status = {};
    if (::stat(folder.c_str(), &status) != 0)
        return "";
    return std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

bool contains(std::string const& text, char const* part) {
    return text.find(part) != std::string::npos;
}

bool saysNotMounted(std::string const& words) {
    return contains(words, "not mounted") || contains(words, "no mount point specified");
}

[[noreturn]] void throwUnmountFailed(std::string const& path, std::string const& words) {
    if (contains(words, "busy"))
        throw yx::CLockFileError("The folder is in use.", pathProps(path), nullptr);
    throw yx::CIOError(yx::CIOError::IOFailure, yx::String::fromUTF8("umount failed: " + words),
                       pathProps(path), nullptr);
}

void makeFolder(std::string const& path) {
    if (::mkdir(path.c_str(), kOwnFolder) != 0 && errno != EEXIST)
        host::throwSystemError("Cannot make the folder", path);
}

} // namespace

MountRecord MountRecord::make(std::string const& folder, std::string const& disk) {
    MountRecord record(folder, placeOfRecords() + "/" + nameFor(folder));
    makeFolder(placeOfRecords());
    int made = ::mkdir(record.m_place.c_str(), kOwnFolder);
    if (made != 0 && errno == ENOENT) {
        // Who took down the last one has just removed the folder of all.
        makeFolder(placeOfRecords());
        made = ::mkdir(record.m_place.c_str(), kOwnFolder);
    }
    if (made != 0) {
        if (errno != EEXIST)
            host::throwSystemError("Cannot make the folder", record.m_place);
        throw yx::CIOError(yx::CIOError::AlreadyExists,
                           "A disk is mounted on the folder, or a command that was killed has left "
                           "something. Use kelm umount first.",
                           pathProps(folder), nullptr);
    }
    try {
        record.write("folder", folder);
        record.write("disk", disk);
        record.write("bare", identityOf(folder));
        makeFolder(record.pathOf("image"));
        if (::mkfifo(record.pathOf("ready").c_str(), 0600) != 0)
            host::throwSystemError("Cannot make the pipe", record.pathOf("ready"));
    } catch (...) {
        record.remove();
        throw;
    }
    return record;
}

MountRecord MountRecord::find(std::string const& folder) {
    MountRecord record(folder, placeOfRecords() + "/" + nameFor(folder));
    if (::access(record.m_place.c_str(), F_OK) != 0) {
        throw yx::CIOError(yx::CIOError::NotFound, "No disk is mounted on the folder by kelm.",
                           pathProps(folder).add("record", yx::String::fromUTF8(record.m_place)),
                           nullptr);
    }
    return record;
}

std::string MountRecord::read(std::string const& name) const {
    std::ifstream stream(pathOf(name), std::ios::binary);
    std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    return text;
}

void MountRecord::write(std::string const& name, std::string const& text) const {
    std::ofstream stream(pathOf(name), std::ios::binary);
    stream << text << '\n';
    stream.close();
    if (!stream)
        host::throwSystemError("Cannot make the file", pathOf(name));
}

host::FileDescriptor MountRecord::lockAlive() const {
    constexpr int kFlags = O_RDWR | O_CREAT | O_CLOEXEC;
    host::FileDescriptor file =
        host::FileDescriptor::own(::open(pathOf("alive").c_str(), kFlags, 0600));
    if (!file.isOpen() || ::flock(file.get(), LOCK_SH) != 0)
        host::throwSystemError("Cannot lock the file", pathOf("alive"));
    return file;
}

void MountRecord::rememberMounted() const {
    write("mounted", identityOf(m_folder));
}

void MountRecord::unmountFolder() const {
    std::string const now = identityOf(m_folder);
    std::string const mounted = read("mounted");
    if (now == read("bare"))
        return;
    // A file system that has lost its device has no identity either.
    if (!now.empty() && !mounted.empty() && now != mounted) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "Something else is mounted on the folder.",
                           pathProps(m_folder), nullptr);
    }
    ProgramEnd const end = runProgram({"umount", m_folder});
    if (end.status != 0 && !saysNotMounted(end.words))
        throwUnmountFailed(m_folder, end.words);
}

void MountRecord::unmountImage(host::CancelFlag const* cancel) const {
    for (int step = 0;; ++step) {
        if (cancel)
            cancel->check();
        ProgramEnd const end = runProgram({"umount", pathOf("image")});
        if (end.status == 0 || saysNotMounted(end.words))
            return;
        if (!contains(end.words, "busy") || step == kMaxBusySteps)
            throwUnmountFailed(pathOf("image"), end.words);
        std::this_thread::sleep_for(kWaitStep);
    }
}

void MountRecord::waitForServers(host::CancelFlag const* cancel) const {
    host::FileDescriptor const file =
        host::FileDescriptor::own(::open(pathOf("alive").c_str(), O_RDWR | O_CLOEXEC));
    // It was never made where nothing was started.
    for (int step = 0; file.isOpen() && ::flock(file.get(), LOCK_EX | LOCK_NB) != 0; ++step) {
        if (cancel)
            cancel->check();
        if (step == kMaxServerSteps) {
            throw yx::CLockFileError("The server of the disk does not end.", pathProps(m_folder),
                                     nullptr);
        }
        std::this_thread::sleep_for(kWaitStep);
    }
}

void MountRecord::remove() const {
    // Without anything that is deleted as a whole: something may be mounted there.
    if (::rmdir(pathOf("image").c_str()) != 0 && errno != ENOENT)
        host::throwSystemError("Cannot remove the folder", pathOf("image"));
    for (char const* const name : {"ready", "log", "alive", "mounted", "bare", "disk", "folder"})
        ::unlink(pathOf(name).c_str());
    if (::rmdir(m_place.c_str()) != 0)
        host::throwSystemError("Cannot remove the folder", m_place);
    // The last one takes the folder of all along.
    ::rmdir(placeOfRecords().c_str());
}

void MountRecord::takeDown(host::CancelFlag const* cancel) const {
    unmountFolder();
    unmountImage(cancel);
    waitForServers(cancel);
    remove();
}

} // namespace kelm::tool
