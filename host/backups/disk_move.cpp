#include "host/backups/disk_move.h"

#include <algorithm>

#include "host/backups/left_locks.h"
#include "host/backups/moved_names.h"
#include "host/disk/digest_file_name.h"
#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/folder_access.h"

namespace kelm::host {

namespace {

using MovedName = std::pair<yx::CURI, yx::CURI>;

[[noreturn]] void throwNameTaken(yx::CURI const& file) {
    throw yx::CIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                       yx::CProps().add("uri", file.toString(true)), nullptr);
}

} // namespace

DiskMove::DiskMove(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& from,
                   yx::CURI const& to, DiskMoveOptions const& options)
    : m_fileSystem(fileSystem),
      m_steps(steps),
      m_from(from.toNormalized()),
      m_to(to.toNormalized()),
      m_options(options),
      m_claims(fileSystem),
      m_copied(fileSystem, options.work) {}

DiskMoveResult DiskMove::run() {
    readNote();
    readDisks();
    claim();
    if (m_disk) {
        giveNewNames();
        informChildren();
    }
    removeOldNames();
    completeUnderNewName();
    m_note.remove(m_steps);
    DiskMoveResult result;
    for (auto const& [from, to] : m_note.files) {
        if (m_fileSystem->fileExists(to))
            result.files.push_back(to);
    }
    for (DiskParts const& child : m_children)
        result.children.push_back(child.getMainFile());
    return result;
}

void DiskMove::readNote() {
    yx::CProps const props = yx::CProps().add("uri", m_from.toString(true));
    if (DiskNote::tryRead(m_fileSystem.get(), m_from, DiskNote::Work::Deleting)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The disk is being deleted.", props, nullptr);
    }
    std::optional<DiskNote> note =
        DiskNote::tryRead(m_fileSystem.get(), m_from, DiskNote::Work::Moving);
    m_goesOn = note.has_value();
    bool const isThere = m_fileSystem->fileExists(m_from);
    if (!note) {
        if (!isThere) {
            removeLeftLock(m_fileSystem.get(), m_from);
            throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.", props, nullptr);
        }
        return;
    }
    m_note = *std::move(note);
    if (m_note.files.front().second != m_to) {
        throw yx::CIOError(
            yx::CIOError::NotAllowed, "The disk is being renamed to another name.",
            yx::CProps(props).add("target", m_note.files.front().second.toString(true)), nullptr);
    }
    if (isThere && identifyFile(m_from) != m_note.mainIdentity) {
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "The file was replaced by another one while the disk was being renamed.",
                           props, nullptr);
    }
}

/// Also looks at all that can be wrong before anything is begun.
void DiskMove::readDisks() {
    m_isNamed = m_goesOn && m_fileSystem->fileExists(m_to);
    if (!m_fileSystem->fileExists(m_from))
        return;
    m_disk = readDiskParts(m_fileSystem.get(), m_from);
    verifyOwnsFiles(m_fileSystem.get(), *m_disk, m_options.trust);
    DiskRelations const relations(m_fileSystem.get(), m_options.lookIn);
    relations.verifyHasFilesAlone(*m_disk);
    for (yx::CURI const& child : relations.findChildren(m_from))
        m_children.push_back(readDiskParts(m_fileSystem.get(), child));
    if (!m_goesOn)
        makeNote();
    verifyReferencesHaveRoom();
}

void DiskMove::makeNote() {
    m_note.work = DiskNote::Work::Moving;
    m_note.mainIdentity = identifyFile(m_from).value_or(FileIdentity());
    m_note.files = listMovedNames(*m_disk, m_to);
    deleteLeftDigests(m_fileSystem.get(), m_to);
    verifyNamesAreFree();
    verifyMayWriteInFolderOf(m_from);
    verifyMayWriteInFolderOf(m_to);
}

void DiskMove::verifyNamesAreFree() const {
    for (auto const& [from, to] : m_note.files) {
        if ((from != to || from == m_from) && isNameTaken(to))
            throwNameTaken(to);
    }
}

void DiskMove::verifyReferencesHaveRoom() const {
    movedTo(m_disk->descriptor, m_to, getNewNames());
    for (DiskParts const& child : m_children)
        withNewParent(child);
}

void DiskMove::claim() {
    m_claims.addName(m_to);
    if (m_disk)
        m_claims.add(*m_disk);
    else
        m_claims.addName(m_from);
    for (auto const& [from, to] : m_note.files) {
        m_claims.addFile(from);
        m_claims.addFile(to);
    }
    for (DiskParts const& child : m_children)
        m_claims.add(child);
    // Only now nobody changes them any more.
    if (m_disk)
        m_disk = readDiskParts(m_fileSystem.get(), m_from);
    for (DiskParts& child : m_children)
        child = readDiskParts(m_fileSystem.get(), child.getMainFile());
}

void DiskMove::verifyRoom() {
    for (auto const& [from, to] : m_note.files)
        m_copied.plan(from, to);
    // Second names take none.
    if (!areOnOneDevice(m_from.getParent(), m_to.getParent()))
        m_copied.verifyRoom(m_to.getParent());
}

void DiskMove::copyFile(yx::CURI const& from, yx::CURI const& to) {
    m_steps.copy(from, to, m_options.work.cancel);
    m_copied.addDone(from);
}

void DiskMove::giveNewNames() {
    verifyRoom();
    if (!m_goesOn)
        m_note.write(m_steps);
    try {
        keepParentInReach();
        for (std::size_t i = 1; i < m_note.files.size(); ++i)
            addFile(m_note.files[i].first, m_note.files[i].second);
        addMainFile();
    } catch (...) {
        withdraw();
        throw;
    }
}

/// A file that gets a second name in another folder has its parent's name only once.
void DiskMove::keepParentInReach() {
    yx::CURI const parent = findParentFile(m_disk->descriptor.parse(), m_from);
    if (!m_disk->isInOneFile() || parent.isEmpty() || m_from.getParent() == m_to.getParent())
        return;
    DescriptorFile const changed = withParentReference(m_disk->descriptor, parent.toString(true));
    if (changed.area == m_disk->descriptor.area)
        return;
    storeDescriptorFile(m_steps, changed);
    m_disk->descriptor = changed;
}

void DiskMove::addFile(yx::CURI const& from, yx::CURI const& to) {
    if (from == to || !m_fileSystem->fileExists(from))
        return;
    if (isNameTaken(to)) {
        if (!m_goesOn || !DurableFiles::areAlike(from, to, m_options.work.cancel))
            throwNameTaken(to);
        return;
    }
    if (!m_steps.tryLink(from, to))
        copyFile(from, to);
    m_made.push_back(to);
}

void DiskMove::addMainFile() {
    DescriptorFile const moved = movedTo(m_disk->descriptor, m_to, getNewNames());
    if (isNameTaken(m_to)) {
        verifyIsMovedDisk();
    } else if (!moved.isEmbedded) {
        m_steps.make(m_to, moved.area, m_from);
        m_made.push_back(m_to);
    } else if (!m_disk->isInOneFile() || !m_steps.tryLink(m_from, m_to)) {
        copyFile(m_from, m_to);
        m_made.push_back(m_to);
    } else {
        m_made.push_back(m_to);
    }
    // A copy has the descriptor of before.
    if (moved.isEmbedded && !isSameFile(m_from, m_to))
        storeDescriptorFile(m_steps, moved);
}

/// A file of that name is what an earlier call made, or somebody else's.
void DiskMove::verifyIsMovedDisk() const {
    if (m_goesOn && isSameFile(m_from, m_to))
        return;
    if (!m_goesOn)
        throwNameTaken(m_to);
    DescriptorFile const named = readDescriptorFile(m_fileSystem.get(), m_to);
    CVMDKDescriptor const now = m_disk->descriptor.parse();
    // Somebody who wrote to either disk since has changed its content ID.
    bool const isOfSameKind = named.isEmbedded == m_disk->descriptor.isEmbedded;
    if (!isOfSameKind || named.parse().getContentID() != now.getContentID())
        throwNameTaken(m_to);
}

/// Takes away what was made, as long as nobody can know of it. What cannot be taken away is left to
/// the next call.
void DiskMove::withdraw() {
    if (m_isNamed)
        return;
    try {
        for (auto file = m_made.rbegin(); file != m_made.rend(); ++file)
            m_steps.remove(*file);
        bool const isLeft =
            std::any_of(m_note.files.begin(), m_note.files.end(), [this](MovedName const& name) {
                return name.first != name.second && m_goesOn && isNameTaken(name.second);
            });
        if (!isLeft)
            m_note.remove(m_steps);
    } catch (yx::CError const& error) {
        error.nop();
    }
}

void DiskMove::informChildren() {
    for (DiskParts const& child : m_children) {
        DescriptorFile const informed = withNewParent(child);
        if (informed.area != child.descriptor.area)
            storeDescriptorFile(m_steps, informed);
    }
}

void DiskMove::removeOldNames() {
    for (auto const& [from, to] : m_note.files) {
        if (from == to || !m_fileSystem->fileExists(from))
            continue;
        if (!m_fileSystem->fileExists(to)) {
            throw yx::CIOError(yx::CIOError::NotFound,
                               "The new file of the disk is gone, so the old one is kept.",
                               yx::CProps().add("uri", to.toString(true)), nullptr);
        }
        m_steps.remove(from);
    }
}

void DiskMove::completeUnderNewName() {
    DiskParts const disk = readDiskParts(m_fileSystem.get(), m_to);
    if (!disk.isInOneFile())
        return;
    yx::CURI const parent = findParentFile(disk.descriptor.parse(), m_to);
    DescriptorFile complete = disk.descriptor;
    if (!parent.isEmpty())
        complete = withParentReference(complete, makeFileReference(m_to.getParent(), parent));
    storeDescriptorFile(m_steps, complete);
}

DescriptorFile DiskMove::withNewParent(DiskParts const& child) const {
    return withParentReference(child.descriptor,
                               makeFileReference(child.getMainFile().getParent(), m_to));
}

std::map<yx::CURI, yx::CURI> DiskMove::getNewNames() const {
    return {m_note.files.begin(), m_note.files.end()};
}

} // namespace kelm::host
