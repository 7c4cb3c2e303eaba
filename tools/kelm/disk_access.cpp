#include "tools/kelm/disk_access.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "host/backups/disk_note.h"
#include "host/backups/disk_parts.h"
#include "host/check/undo_file.h"
#include "host/disk/chain_keys.h"
#include "host/disk/dead_tails.h"
#include "host/disk/digest_file_name.h"
#include "host/disk/disk_files.h"
#include "host/disk/disk_opening.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_names.h"
#include "host/store/folder_access.h"
#include "host/system/name_text.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

/// The library opens the parents when it first needs them, and does not wait then. Whether they can
/// be opened is for the command to find out.
void waitForParents(Invocation& invocation, host::SafeDisk& disk, yx::String const& password) {
    if (!invocation.getWait().isOn() || !disk.hasParent())
        return;
    try {
        openParents(invocation, disk, password);
    } catch (host::CancelledError const&) {
        throw;
    } catch (yx::CError const& error) {
        error.nop();
    }
}

void explainParent(Invocation& invocation, host::SafeDisk& disk) {
    std::string const name = host::displayName(disk.getDisk().getMainFileURI());
    if (disk.hasParent()) {
        invocation.getResult().explain(name + " has the parent " +
                                       host::displayName(disk.getDisk().getParentDiskMainURI()));
    } else {
        invocation.getResult().explain(name + " has no parent");
    }
}

std::unique_ptr<host::SafeDisk> openWith(Invocation& invocation, yx::CURI const& uri,
                                         yx::IIOStream::Access access, yx::String const& password,
                                         int compressionLevel) {
    deriveKeys(invocation, uri, password);
    std::unique_ptr<host::SafeDisk> disk = invocation.getWait().retry([&] {
        return std::make_unique<host::SafeDisk>(
            invocation.getFiles(), uri, access, password, compressionLevel,
            CVMDKGrainTableCache::kDefaultLimit, invocation.getTrust());
    });
    waitForParents(invocation, *disk, password);
    explainParent(invocation, *disk);
    return disk;
}

/// Beside one of the files of a disk. What cannot be read has none.
bool hasUnfinishedFile(yx::IFileSystem* files, yx::CURI const& mainFile) {
    if (files->fileExists(host::unfinishedNameOf(mainFile)))
        return true;
    if (!host::isDiskMainFile(mainFile))
        return false;
    try {
        std::vector<yx::CURI> const extents = host::readDiskParts(files, mainFile).extentFiles;
        return std::any_of(extents.begin(), extents.end(), [files](yx::CURI const& extent) {
            return files->fileExists(host::unfinishedNameOf(extent));
        });
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

std::vector<yx::CURI> listFilesWithDigests(host::SafeDisk& disk) {
    std::vector<yx::CURI> files = disk.listFiles();
    files.push_back(host::digestFileOf(files.front()));
    return files;
}

} // namespace

void warnOfEndedWork(Invocation& invocation, yx::CURI const& uri) {
    for (yx::CURI const& folder : host::KeptFiles::findFoldersOf(uri)) {
        yx::logWarning("The disk that was to be replaced is still kept in '" +
                       yx::String::fromUTF8(host::displayName(folder)) +
                       "'. Move its files back, or delete the folder.");
    }
    yx::IFileSystem* const files = invocation.getFiles();
    yx::String const note = host::DiskNote::describe(files, uri);
    if (!note.isEmpty())
        yx::logWarning(note);
    if (files->fileExists(host::UndoFile::nameAtWork(uri))) {
        yx::logWarning("A repair of the disk did not come to its end. 'kelm repair' begins it "
                       "anew, and with --undo takes it back.");
    }
    if (hasUnfinishedFile(files, uri)) {
        yx::logWarning("A file of the disk was to be replaced by a new one, which is not complete. "
                       "'kelm compact' goes on with that, or takes it away.");
    }
}

void deriveKeys(Invocation& invocation, yx::CURI const& mainFile, yx::String const& password) {
    if (password.isEmpty())
        return;
    host::deriveKeysOfChain(invocation.getFiles(), mainFile,
                            {password, invocation.readParentPassword()},
                            invocation.getDerivedKeys(), host::countThreads({}));
}

std::unique_ptr<host::SafeDisk> openDisk(Invocation& invocation, std::string const& file,
                                         yx::IIOStream::Access access, PasswordOptions& passwords,
                                         int compressionLevel) {
    yx::CURI const uri = host::uriFromArgument(file);
    warnOfEndedWork(invocation, uri);
    try {
        return openWith(invocation, uri, access, usedPassword(invocation, passwords),
                        compressionLevel);
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    return openWith(invocation, uri, access, askForPassword(invocation, file, passwords).get(),
                    compressionLevel);
}

std::unique_ptr<host::SafeDisk> openToGoOn(
    Invocation& invocation, std::function<std::unique_ptr<host::SafeDisk>()> const& open) {
    std::unique_ptr<host::SafeDisk> disk = open();
    if (host::dropDeadTails(*disk, &invocation.getCancel())) {
        disk.reset();
        disk = open();
    }
    return disk;
}

host::Password const& askForPassword(Invocation const& invocation, std::string const& file,
                                     PasswordOptions& passwords) {
    return passwords.readOrPrompt("Password of " + host::printable(file), false,
                                  invocation.getCancel());
}

yx::String usedPassword(Invocation const& invocation, PasswordOptions& passwords) {
    return passwords.isKnown() ? passwords.read(invocation.getCancel()).get() : yx::String();
}

bool isEncrypted(host::SafeDisk& disk) {
    return disk.getDisk().getDescriptor()->isEncrypted();
}

std::vector<std::unique_ptr<host::SafeDisk>> openParents(Invocation& invocation,
                                                         host::SafeDisk& disk,
                                                         yx::String const& password) {
    return invocation.getWait().retry(
        [&] { return host::openParents(invocation.getFiles(), disk, password); });
}

std::vector<yx::CURI> listChainFiles(Invocation& invocation, host::SafeDisk& disk,
                                     yx::String const& password) {
    std::vector<yx::CURI> files = listFilesWithDigests(disk);
    for (std::unique_ptr<host::SafeDisk> const& parent : openParents(invocation, disk, password)) {
        std::vector<yx::CURI> const more = listFilesWithDigests(*parent);
        files.insert(files.end(), more.begin(), more.end());
    }
    return files;
}

void verifyIsNoneOf(std::vector<yx::CURI> const& files, yx::CURI const& file) {
    if (std::any_of(files.begin(), files.end(),
                    [&](yx::CURI const& each) { return host::isSameFile(each, file); })) {
        throw UsageError("The file to be written belongs to a disk that is to be read: " +
                         host::displayName(file));
    }
}

std::optional<yx::CURI> tryNameRegularFile(std::string const& argument) {
    std::error_code ignored;
    std::filesystem::file_status const status = std::filesystem::status(argument, ignored);
    // A file that does not exist may be an extent file that is yet to be made.
    bool const isSomethingElse =
        std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
    if (argument == "-" || isSomethingElse)
        return std::nullopt;
    return host::uriFromArgument(argument);
}

void verifyIsNoFileOf(Invocation& invocation, host::SafeDisk& disk, yx::String const& password,
                      std::string const& output) {
    if (std::optional<yx::CURI> const file = tryNameRegularFile(output))
        verifyIsNoneOf(listChainFiles(invocation, disk, password), *file);
}

NewDiskInProgress::NewDiskInProgress(Invocation& invocation, yx::CURI const& uri,
                                     host::NewDisk const& request, bool force,
                                     std::vector<yx::CURI> const& protectedFiles)
    : m_invocation(invocation) {
    warnOfEndedWork(invocation, uri);
    invocation.getWait().retry([&] {
        // What an attempt has made goes before the next one.
        m_guard.reset();
        m_formerDisk.reset();
        m_guard =
            yx::makeObject<host::FileGuard>(invocation.getFiles(), force, &invocation.getCancel());
        m_guard->protect(protectedFiles);
        create(uri, request, force);
    });
}

void NewDiskInProgress::keepFormerDisk(yx::CURI const& uri) {
    host::verifyIsNotInUse(m_invocation.getFiles(), uri);
    m_formerDisk.emplace(m_invocation.getFiles(), uri);
    m_formerDisk->keep(*m_guard->getLocks());
}

void NewDiskInProgress::create(yx::CURI const& uri, host::NewDisk const& request, bool force) {
    try {
        // Nothing that exists is touched for what makes no sense.
        host::verifyCanBeMade(uri, request);
        host::verifyMayWriteInFolderOf(uri);
        host::deleteLeftDigests(m_invocation.getFiles(), uri);
        if (force && m_invocation.getFiles()->fileExists(uri))
            keepFormerDisk(uri);
        m_disk = host::SafeDisk::create(m_guard.get(), uri, request);
    } catch (yx::CInvalidArgError const& error) {
        throw UsageError(error.what());
    } catch (yx::CError const& error) {
        if (!error.getMessage().wx().StartsWith(kFileSizeLimitTooSmallMessagePrefix))
            throw;
        throw UsageError("Files of this size have no room for a grain; give a larger --split.");
    }
}

host::DigestMaking& NewDiskInProgress::addDigests() {
    return m_digests.emplace(m_guard.get(), getDisk());
}

host::ConversionDigests NewDiskInProgress::addDigestsOfCopy(host::SafeDisk& from,
                                                            yx::String const& password) {
    m_digestsOfSource = host::ChainDigests::openOfDisk(m_invocation.getFiles(), from, password);
    return {&addDigests(), m_digestsOfSource.get()};
}

void NewDiskInProgress::finishDigests(__int64 imageSizeBytes, host::WorkOptions const& options) {
    if (m_digests)
        m_digests->finish(imageSizeBytes, options);
}

void NewDiskInProgress::finish() {
    assert(m_disk && "a disk is finished once");
    m_invocation.getCancel().check();
    m_disk->markComplete();
    std::vector<yx::CURI> keptFiles = m_disk->listFiles();
    if (m_digests)
        keptFiles.push_back(host::digestFileOf(keptFiles.front()));
    m_invocation.getResult().add(
        {{"file", host::displayName(keptFiles.front())}, {"files", listNames(keptFiles)}});
    m_digests.reset();
    m_disk.reset();
    m_guard->verifyFilesAreThere();
    m_guard->keep();
    if (m_formerDisk) {
        // A copied descriptor can make a file part of two disks.
        std::vector<yx::CURI> const& sources = m_guard->getProtectedFiles();
        keptFiles.insert(keptFiles.end(), sources.begin(), sources.end());
        m_formerDisk->removeFilesBut(keptFiles);
    }
}

} // namespace kelm::tool
