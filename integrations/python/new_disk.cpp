#include "integrations/python/new_disk.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "host/disk/digest_file_name.h"
#include "host/disk/digest_removal.h"
#include "host/disk/disk_opening.h"
#include "host/disk/disk_record.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_names.h"
#include "host/store/folder_access.h"
#include "host/store/stores.h"
#include "host/system/key_rounds.h"
#include "host/system/name_text.h"
#include "host/transfer/exact_size.h"

namespace kelm::python {

namespace {

namespace py = pybind11;

constexpr int kMaxLevel = 9;

/// Readers refuse fewer.
constexpr __int64 kFewestRounds = 1000;

void refuse(std::string const& message) {
    throw yx::CInvalidArgError("NewDiskOptions::makeRequest", yx::String::fromUTF8(message),
                               yx::CProps());
}

void verifyNumbers(NewDiskOptions const& options) {
    if (options.level < -1 || options.level > kMaxLevel)
        refuse("The level is not between 0 and 9.");
    if (options.sizeBytes < -1)
        refuse("The size is negative.");
    if (options.splitBytes != -1 && options.splitBytes < 1)
        refuse("The size of the files is not above 0.");
    if (options.rounds != -1 && options.rounds < kFewestRounds)
        refuse("Readers refuse fewer than 1000 rounds.");
    // As stored, a byte takes up to three.
    if (options.label.size() > host::DiskRecord::kMaxTextBytes / 3)
        refuse("The label is too long.");
}

/// The disks of a chain take one derivation to open, as long as nothing speaks for another one.
void inheritKeyDerivation(host::SafeDisk& parent, host::NewDisk& request) {
    host::KeyDerivationSettings const derivation =
        host::getKeyDerivation(*parent.getDisk().getDescriptor());
    if (derivation.rounds >= host::kFewestKeyRounds)
        request.keyDerivation = derivation;
}

void inheritFromParent(yx::IFileSystem* fileSystem, NewDiskOptions const& options,
                       Access const& access, host::NewDisk& request) {
    host::SafeDisk parent(fileSystem, host::uriFromArgument(options.parent),
                          yx::IIOStream::ReadOnly, access.password.get(), -1,
                          CVMDKGrainTableCache::kDefaultLimit, access.trust.ofParents());
    request.parent = parent.getDisk().getMainFileURI();
    if (request.sizeBytes == -1)
        request.sizeBytes = host::getExactSizeBytes(parent);
    // One password opens a whole chain.
    if (!parent.getDisk().getDescriptor()->isEncrypted())
        return;
    request.password = access.password.get();
    if (options.rounds == -1)
        inheritKeyDerivation(parent, request);
}

std::vector<yx::CURI> listFilesWithDigests(host::SafeDisk& disk) {
    std::vector<yx::CURI> files = disk.listFiles();
    files.push_back(host::digestFileOf(files.front()));
    return files;
}

} // namespace

host::NewDisk NewDiskOptions::makeRequest(yx::IFileSystem* fileSystem, Access const& access) const {
    verifyNumbers(*this);
    host::NewDisk request;
    request.sizeBytes = sizeBytes;
    request.compressed = compressed;
    request.compressionLevel = level;
    request.fileSizeLimitBytes = splitBytes;
    request.createExtentFilesOnDemand = onDemand;
    request.trust = access.trust.ofParents();
    request.label = label;
    if (!parent.empty())
        inheritFromParent(fileSystem, *this, access, request);
    if (request.sizeBytes == -1)
        refuse("The size of the disk is not known.");
    if (encrypt && access.password.isEmpty())
        refuse("An encrypted disk needs a password.");
    if (encrypt)
        request.password = access.password.get();
    if (!request.password.isEmpty() && !request.keyDerivation) {
        request.keyDerivation =
            host::drawKeyDerivation(rounds == -1 ? host::measureKeyRounds() : rounds);
    }
    return request;
}

void verifyUsesPassword(host::NewDisk const& request, Access const& access) {
    if (request.password.isEmpty() && !access.password.isEmpty())
        refuse("There is a password, but the disk is not to be encrypted.");
}

DiskMaking::DiskMaking(yx::IFileSystem* fileSystem, yx::CURI const& uri,
                       host::NewDisk const& request, host::CancelFlag const& cancel,
                       std::vector<yx::CURI> const& protectedFiles, Present present)
    : m_cancel(cancel),
      m_guard(yx::makeObject<host::FileGuard>(fileSystem, present == Present::Replaced, &cancel)) {
    m_guard->protect(protectedFiles);
    host::verifyCanBeMade(uri, request);
    host::verifyMayWriteInFolderOf(uri);
    host::deleteLeftDigests(fileSystem, uri);
    if (present == Present::Replaced && fileSystem->fileExists(uri))
        keepFormerDisk(fileSystem, uri);
    try {
        m_disk = host::SafeDisk::create(m_guard.get(), uri, request);
    } catch (yx::CError const& error) {
        if (!error.getMessage().wx().StartsWith(kFileSizeLimitTooSmallMessagePrefix))
            throw;
        refuse("Files of this size have no room for a grain.");
    }
}

void DiskMaking::keepFormerDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    host::verifyIsNotInUse(fileSystem, uri);
    m_formerDisk.emplace(fileSystem, uri);
    m_formerDisk->keep(*m_guard->getLocks());
}

host::DigestMaking& DiskMaking::addDigests() {
    return m_digests.emplace(m_guard.get(), *m_disk);
}

host::ConversionDigests DiskMaking::addDigestsOfCopy(yx::IFileSystem* fileSystem,
                                                     host::SafeDisk& from,
                                                     yx::String const& password) {
    m_digestsOfSource = host::ChainDigests::openOfDisk(fileSystem, from, password);
    return {&addDigests(), m_digestsOfSource.get()};
}

void DiskMaking::finish(__int64 imageSizeBytes, host::WorkOptions const& options) {
    if (m_digests)
        m_digests->finish(imageSizeBytes, options);
    m_cancel.check();
    m_disk->markComplete();
    std::vector<yx::CURI> files = m_disk->listFiles();
    if (m_digests)
        files.push_back(host::digestFileOf(files.front()));
    m_digests.reset();
    m_disk.reset();
    m_guard->verifyFilesAreThere();
    m_guard->keep();
    if (!m_formerDisk)
        return;
    // A copied descriptor can make a file part of two disks.
    std::vector<yx::CURI> const& sources = m_guard->getProtectedFiles();
    files.insert(files.end(), sources.begin(), sources.end());
    m_formerDisk->removeFilesBut(files);
}

py::dict MadeDisk::describe() const {
    py::dict made;
    made["path"] = toText(file);
    made["size"] = sizeBytes;
    made["image_size"] = imageBytes;
    made["has_digests"] = hasDigests;
    return made;
}

void inheritRecord(host::SafeDisk& from, host::NewDisk& request) {
    host::DiskRecord const record(*from.getDisk().getDescriptor());
    request.time = record.getTime();
    request.source = record.getSource();
    request.host = record.getHost();
    if (request.label.empty())
        request.label = record.getLabel();
}

void verifyIsLocalImage(std::string const& path) {
    if (!host::isStoreURI(path))
        return;
    throw yx::CInvalidArgError("verifyIsLocalImage",
                               "An image must be a file, a device or a pipe of this machine.",
                               yx::CProps().add("uri", yx::String::fromUTF8(path)));
}

std::optional<yx::CURI> tryNameRegularFile(std::string const& path) {
    std::error_code ignored;
    std::filesystem::file_status const status = std::filesystem::status(path, ignored);
    // A file that does not exist may be an extent file that is yet to be made.
    bool const isSomethingElse =
        std::filesystem::exists(status) && !std::filesystem::is_regular_file(status);
    if (path == "-" || isSomethingElse)
        return std::nullopt;
    return host::uriFromArgument(path);
}

std::vector<yx::CURI> listChainFiles(yx::IFileSystem* fileSystem, host::SafeDisk& disk,
                                     yx::String const& password) {
    std::vector<yx::CURI> files = listFilesWithDigests(disk);
    for (std::unique_ptr<host::SafeDisk> const& parent :
         host::openParents(fileSystem, disk, password)) {
        std::vector<yx::CURI> const more = listFilesWithDigests(*parent);
        files.insert(files.end(), more.begin(), more.end());
    }
    return files;
}

void verifyIsNoneOf(std::vector<yx::CURI> const& files, yx::CURI const& file) {
    if (std::any_of(files.begin(), files.end(),
                    [&](yx::CURI const& each) { return host::isSameFile(each, file); })) {
        throw yx::CInvalidArgError("verifyIsNoneOf",
                                   "The file to be written belongs to a disk that is to be read.",
                                   yx::CProps().add("uri", file.toString(true)));
    }
}

host::WorkOptions withoutProgress(host::WorkOptions const& options) {
    return {.threads = options.threads, .progress = {}, .cancel = options.cancel};
}

} // namespace kelm::python
