#include "host/store/kept_files.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "host/store/file_status.h"
#include "host/store/stores.h"
#include "host/system/name_text.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

constexpr char kFormerSuffix[] = ".former";

/// So many programs can be killed one after the other over one disk.
constexpr int kMaxFormerFolders = 16;

/// The names of the folders beside a file, in normal form. Every command asks for all of them, so
/// what they share is made once.
class FormerFolderNames {
public:
    explicit FormerFolderNames(yx::CURI const& file)
        : m_parent(file.getParent().toNormalized()),
          m_first(file.getName() + kFormerSuffix),
          m_others(m_first + ".") {}

    yx::CURI at(int number) const {
        return m_parent << (number == 1 ? m_first : m_others + yx::toString(number));
    }

private:
    yx::CURI m_parent;
    yx::String m_first;
    yx::String m_others;
};

/// The same error, that says what was to be done.
[[noreturn]] void throwForKeeping(yx::CIOError const& error, yx::String const& what) {
    yx::String const reason(error.getMessage().wx().AfterFirst(':'));
    throw yx::CIOError(error.getIOCode(),
                       what + ":" + (reason.isEmpty() ? " " + error.getMessage() : reason),
                       error.getParams(), nullptr);
}

yx::CURI makeFormerFolder(IStore& store, yx::CURI const& file) {
    FormerFolderNames const names(file);
    for (int number = 1;; ++number) {
        yx::CURI folder = names.at(number);
        try {
            store.makeFolder(folder);
            return folder;
        } catch (yx::CIOError const& error) {
            if (error.getIOCode() != yx::CIOError::AlreadyExists || number == kMaxFormerFolders)
                throwForKeeping(error, "Cannot make a folder to keep the former disk in");
        }
    }
}

bool isThere(IStore& store, yx::CURI const& uri) {
    return store.findStatus(uri, false).has_value();
}

/// Gives a file another name, and lets it keep its present one if that can be.
void addName(IStore& store, yx::CURI const& from, yx::CURI const& to) {
    // Without hard links, or for somebody else's file.
    if (!store.tryAddName(from, to))
        store.renameIfAbsent(from, to);
}

} // namespace

KeptFiles::KeptFiles(std::vector<yx::CURI> const& files)
    : m_store(&storeOf(files.front())),
      m_parent(files.front().getParent()),
      m_folder(makeFormerFolder(*m_store, files.front())) {
    try {
        for (yx::CURI const& file : files)
            keep(file);
        m_store->syncFolder(m_folder);
        m_store->syncFolder(m_parent);
    } catch (...) {
        if (tryRestoreAll())
            removeSecondNames();
        throw;
    }
}

void KeptFiles::keep(yx::CURI const& file) {
    yx::CURI const second = (yx::CURI(m_folder) << file.getName()).toNormalized();
    try {
        addName(*m_store, file, second);
    } catch (yx::CIOError const& error) {
        throwForKeeping(error, "Cannot keep the file of the former disk");
    }
    m_files.push_back({file, second});
}

KeptFiles::~KeptFiles() {
    if (m_isDropped)
        return;
    if (!tryRestoreAll()) {
        yx::logWarning("The former disk could not be put back, and is kept in '" +
                       yx::String::fromUTF8(displayName(m_folder)) + "'.");
        return;
    }
    removeSecondNames();
}

/// Whether the file has its first name now.
bool KeptFiles::tryRestore(File const& file) const {
    if (isSameFileOf(file))
        return true;
    bool const isTaken = isThere(*m_store, file.first);
    // The file that never got its second name has its first one.
    if (!isThere(*m_store, file.second))
        return isTaken;
    if (!isTaken)
        addName(*m_store, file.second, file.first);
    return !isTaken;
}

bool KeptFiles::isSameFileOf(File const& file) const {
    std::optional<FileIdentity> const identity = identifyFile(file.first);
    return identity && identity == identifyFile(file.second);
}

bool KeptFiles::tryRestoreAll() const {
    try {
        bool const areRestored = std::all_of(m_files.rbegin(), m_files.rend(),
                                             [this](File const& each) { return tryRestore(each); });
        if (areRestored)
            m_store->syncFolder(m_parent);
        return areRestored;
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

void KeptFiles::removeSecondNames() const {
    try {
        for (File const& file : m_files)
            m_store->deleteFile(file.second, true);
        m_store->removeFolder(m_folder);
    } catch (yx::CError const& error) {
        error.nop();
        yx::logWarning("Cannot delete the folder '" + yx::String::fromUTF8(displayName(m_folder)) +
                       "' of the former disk.");
    }
}

void KeptFiles::drop() {
    m_isDropped = true;
    // Once these are gone, nothing would tell of files of the former disk that a power cut brings
    // back.
    try {
        m_store->syncFolder(m_parent);
    } catch (yx::CError const& error) {
        yx::logWarning(error,
                       "The former disk is kept in '" +
                           yx::String::fromUTF8(displayName(m_folder)) + "'.",
                       "");
        return;
    }
    removeSecondNames();
}

std::vector<yx::CURI> KeptFiles::findFoldersOf(yx::CURI const& file) {
    std::vector<yx::CURI> folders;
    IStore* const store = findStore(file);
    if (!store)
        return folders;
    FormerFolderNames const names(file);
    for (int number = 1; number <= kMaxFormerFolders; ++number) {
        yx::CURI folder = names.at(number);
        std::optional<FileStatus> const status = store->findStatus(folder, true);
        if (status && status->kind == FileKind::Folder)
            folders.push_back(std::move(folder));
    }
    return folders;
}

} // namespace kelm::host
