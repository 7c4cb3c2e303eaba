#include "host/store/kept_files.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "host/store/folder_sync.h"
#include "host/system/file_descriptor.h"
#include "host/system/file_identity.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

namespace fs = std::filesystem;

constexpr char kFormerSuffix[] = ".former";

/// So many programs can be killed one after the other over one disk.
constexpr int kMaxFormerFolders = 16;

std::string pathOfURI(yx::CURI const& uri) {
    return yx::toNativePath(uri).toStdString();
}

std::string formerFolderPath(std::string const& file, int number) {
    return file + kFormerSuffix + (number == 1 ? "" : "." + std::to_string(number));
}

std::string makeFormerFolder(std::string const& file) {
    constexpr mode_t kMode = 0777;
    for (int number = 1; number <= kMaxFormerFolders; ++number) {
        std::string folder = formerFolderPath(file, number);
        if (::mkdir(folder.c_str(), kMode) == 0)
            return folder;
        if (errno != EEXIST)
            break;
    }
    throwSystemError("Cannot make a folder to keep the former disk in", file + kFormerSuffix);
}

bool haveOneFile(std::string const& left, std::string const& right) {
    std::optional<FileIdentity> const identity = identifyFile(left);
    return identity && identity == identifyFile(right);
}

/// Gives a file another name, and lets it keep its present one if that can be.
bool tryName(std::string const& from, std::string const& to) {
    return ::link(from.c_str(), to.c_str()) == 0 ||
           // Without hard links, or for somebody else's file.
           (errno != EEXIST && ::rename(from.c_str(), to.c_str()) == 0);
}

} // namespace

KeptFiles::KeptFiles(std::vector<yx::CURI> const& files) {
    assert(!files.empty());
    std::string const main = pathOfURI(files.front());
    m_folder = makeFormerFolder(main);
    try {
        for (yx::CURI const& file : files) {
            std::string const first = pathOfURI(file);
            std::string const second = (fs::path(m_folder) / fs::path(first).filename()).string();
            if (!tryName(first, second))
                throwSystemError("Cannot keep the file of the former disk", first);
            m_files.push_back({first, second});
        }
        syncFolder(m_folder);
        syncFolder(fs::path(m_folder).parent_path().string());
    } catch (...) {
        if (tryRestoreAll())
            removeSecondNames();
        throw;
    }
}

KeptFiles::~KeptFiles() {
    if (m_isDropped)
        return;
    if (!tryRestoreAll()) {
        yx::logWarning("The former disk could not be put back, and is kept in '" +
                       yx::String::fromUTF8(m_folder) + "'.");
        return;
    }
    removeSecondNames();
}

/// Whether the file has its first name now.
bool KeptFiles::tryRestore(File const& file) const {
    if (haveOneFile(file.first, file.second))
        return true;
    struct stat status = {};
    bool const isTaken = ::lstat(file.first.c_str(), &status) == 0;
    bool const isGone = ::lstat(file.second.c_str(), &status) != 0;
    // The file that never got its second name has its first one.
    return isGone ? isTaken : !isTaken && tryName(file.second, file.first);
}

bool KeptFiles::tryRestoreAll() const {
    bool const areRestored = std::all_of(m_files.rbegin(), m_files.rend(),
                                         [this](File const& file) { return tryRestore(file); });
    if (!areRestored)
        return false;
    try {
        syncFolder(fs::path(m_folder).parent_path().string());
    } catch (yx::CError const&) {
        return false;
    }
    return true;
}

void KeptFiles::removeSecondNames() const {
    for (File const& file : m_files)
        ::unlink(file.second.c_str());
    if (::rmdir(m_folder.c_str()) != 0)
        yx::logWarning("Cannot delete the folder '" + yx::String::fromUTF8(m_folder) +
                       "' of the former disk.");
}

void KeptFiles::drop() {
    m_isDropped = true;
    // Once these are gone, nothing would tell of files of the former disk that a power cut brings
    // back.
    try {
        syncFolder(fs::path(m_folder).parent_path().string());
    } catch (yx::CError const& error) {
        yx::logWarning(error,
                       "The former disk is kept in '" + yx::String::fromUTF8(m_folder) + "'.", "");
        return;
    }
    removeSecondNames();
}

std::vector<yx::CURI> KeptFiles::findFoldersOf(yx::CURI const& file) {
    std::vector<yx::CURI> folders;
    if (file.getScheme() != "file")
        return folders;
    std::string const path = pathOfURI(file);
    for (int number = 1; number <= kMaxFormerFolders; ++number) {
        std::string const folder = formerFolderPath(path, number);
        struct stat status = {};
        if (::stat(folder.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
            folders.push_back(yx::CURI(
                yx::TPathImpl<yx::CUnixPathTraits>(yx::String::fromUTF8(folder), true, false),
                false));
        }
    }
    return folders;
}

} // namespace kelm::host
