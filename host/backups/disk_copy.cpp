#include "host/backups/disk_copy.h"

#include <algorithm>

#include "host/backups/moved_names.h"
#include "host/store/file_exists.h"
#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/folder_access.h"

namespace kelm::host {

namespace {} // namespace

DiskCopy::DiskCopy(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& from,
                   yx::CURI const& to, DiskCopyOptions const& options)
    : m_fileSystem(fileSystem),
      m_steps(steps),
      m_from(from.toNormalized()),
      m_to(to.toNormalized()),
      m_options(options),
      m_readClaims(fileSystem, FileLock::Type::Shared),
      m_newClaims(fileSystem),
      m_copied(fileSystem, options.work) {}

std::vector<yx::CURI> DiskCopy::run() {
    if (!m_fileSystem->fileExists(m_from)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", m_from.toString(true)), nullptr);
    }
    readNote();
    planFiles();
    if (!m_goesOn)
        m_note.write(m_steps, m_from);
    try {
        copyFiles();
        makeMainFile();
    } catch (...) {
        withdraw();
        throw;
    }
    m_note.remove(m_steps);
    std::vector<yx::CURI> files;
    for (auto const& [to, from] : m_note.files) {
        if (m_fileSystem->fileExists(to))
            files.push_back(to);
    }
    return files;
}

void DiskCopy::readNote() {
    std::optional<DiskNote> const note =
        DiskNote::tryRead(m_fileSystem.get(), m_to, DiskNote::Work::Copying);
    m_goesOn =
        note && note->files.front().second == m_from && note->mainIdentity == identifyFile(m_from);
}

void DiskCopy::planFiles() {
    verifyMayWriteInFolderOf(m_to);
    m_readClaims.add(readDiskParts(m_fileSystem.get(), m_from));
    m_newClaims.addName(m_to);
    // Only now nobody changes it any more.
    m_disk = readDiskParts(m_fileSystem.get(), m_from);
    verifyOwnsFiles(m_fileSystem.get(), *m_disk, m_options.trust);
    m_note.work = DiskNote::Work::Copying;
    m_note.mainIdentity = identifyFile(m_from).value_or(FileIdentity());
    for (auto const& [from, to] : listMovedNames(*m_disk, m_to)) {
        if (isNameTaken(to) && !m_goesOn)
            throwFileExists(to);
        m_note.files.emplace_back(to, from);
        m_copied.plan(from, to);
    }
    m_copied.verifyRoom(m_to.getParent());
}

void DiskCopy::copyFiles() {
    for (std::size_t index = 1; index < m_note.files.size(); ++index)
        copyFile(m_note.files[index].first, m_note.files[index].second);
}

void DiskCopy::copyFile(yx::CURI const& to, yx::CURI const& from) {
    if (!m_fileSystem->fileExists(from))
        return;
    if (isNameTaken(to)) {
        if (!DurableFiles::areAlike(from, to, m_options.work.cancel))
            throwFileExists(to);
    } else {
        m_steps.copy(from, to, m_options.work.cancel);
        m_made.push_back(to);
    }
    m_copied.addDone(from);
}

void DiskCopy::makeMainFile() {
    std::map<yx::CURI, yx::CURI> newNames;
    for (auto const& [to, from] : m_note.files)
        newNames.emplace(from, to);
    DescriptorFile const moved = movedTo(m_disk->descriptor, m_to, newNames);
    if (isNameTaken(m_to)) {
        // What an earlier call made, with the old descriptor or the new one.
        DescriptorFile const present = readDescriptorFile(m_fileSystem.get(), m_to);
        if (present.isEmbedded != moved.isEmbedded ||
            present.parse().getContentID() != moved.parse().getContentID())
            throwFileExists(m_to);
    } else if (moved.isEmbedded) {
        m_steps.copy(m_from, m_to, m_options.work.cancel);
        m_made.push_back(m_to);
    } else {
        m_steps.make(m_to, moved.area, m_from);
        m_made.push_back(m_to);
    }
    if (moved.isEmbedded)
        storeDescriptorFile(m_steps, moved);
    m_copied.finish();
}

/// What cannot be taken away is left to the next call.
void DiskCopy::withdraw() {
    try {
        for (auto file = m_made.rbegin(); file != m_made.rend(); ++file)
            m_steps.remove(*file);
        if (!m_goesOn)
            m_note.remove(m_steps);
    } catch (yx::CError const& error) {
        error.nop();
    }
}

} // namespace kelm::host
