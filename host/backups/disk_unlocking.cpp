#include "host/backups/disk_unlocking.h"

#include <algorithm>
#include <functional>
#include <optional>

#include "host/backups/disk_claims.h"
#include "host/disk/busy_wait.h"
#include "host/disk/error_kind.h"
#include "host/disk/extent_names.h"
#include "host/store/file_names.h"
#include "host/store/stores.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// Two that take a lock file in one moment can both be told that it is being removed.
constexpr int kMaxClaims = 5;

/// Whether a client is taken for one of those who hold the disk, by what it has of a file.
using IsHolder = std::function<bool(StoreHolder const&, HeldFile const&)>;

class DiskUnlocking {
public:
    DiskUnlocking(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                  DiskUnlockOptions const& options)
        : m_fileSystem(fileSystem), m_options(options) {
        setMainFile(mainFile);
        m_result.areHoldersKnown = knowsHolders(mainFile);
    }

    DiskUnlockResult run() {
        if (!freeOf(listFirstFiles(), isSurelyHeld()))
            return refuse();
        // Only now: it may have to wait for whoever has the file.
        yx::CURI const resolved = resolveName(m_result.mainFile);
        if (resolved != m_result.mainFile) {
            setMainFile(resolved);
            if (!freeOf(listFirstFiles(), isSurelyHeld()))
                return refuse();
        }
        std::vector<yx::CURI> files = listFirstFiles();
        std::optional<DiskParts> const disk = readParts();
        if (disk && !freeExtents(*disk))
            return refuse();
        if (disk)
            files.insert(files.end(), disk->extentFiles.begin(), disk->extentFiles.end());
        if (tryClaim(disk))
            return m_result;
        // Who has locked a file has it open, if only for reading.
        bool const isLeftToNobody =
            freeOf(files, [](StoreHolder const&, HeldFile const& file) { return file.isOpen; });
        if (isLeftToNobody && !m_result.shutOut.empty())
            tryClaim(disk);
        return m_result;
    }

private:
    void setMainFile(yx::CURI const& mainFile) {
        m_result.mainFile = mainFile;
        m_lockFile = CVMDKDisk::getLockFileURI(mainFile);
    }

    /// What everybody has who has the disk open.
    std::vector<yx::CURI> listFirstFiles() const { return {m_lockFile, m_result.mainFile}; }

    /// Whether a client holds the disk, as far as can be told without trying: a lock is not told of,
    /// but whoever has the lock file open has it locked. Somebody may read another file of the disk
    /// without a lock. What is not open is given back by those who live, and not by the dead.
    IsHolder isSurelyHeld() const {
        return [this](StoreHolder const& holder, HeldFile const& file) {
            bool const mayBeDead = m_options.force && holder.life == StoreHolder::Life::Unknown;
            return (file.isOpen && file.uri == m_lockFile) || file.isOpenForWriting ||
                   (mayBeDead && file.mayHaveChanges);
        };
    }

    bool mayShutOut(StoreHolder const& holder) const {
        switch (holder.life) {
        case StoreHolder::Life::DiedHere:
            return true;
        case StoreHolder::Life::LivesHere:
            return false;
        case StoreHolder::Life::Unknown:
            break;
        }
        return m_options.force;
    }

    /// Shuts out who may be shut out of those that hold one of the files. Whether that leaves
    /// nobody, as far as is known.
    bool freeOf(std::vector<yx::CURI> const& files, IsHolder const& isHolder) {
        m_result.holders.clear();
        for (StoreHolder& holder : ask(files)) {
            bool const isHeld =
                std::any_of(holder.files.begin(), holder.files.end(),
                            [&](HeldFile const& file) { return isHolder(holder, file); });
            // Whatever the dead have of a file may be waited for.
            if (!isHeld && holder.life != StoreHolder::Life::DiedHere)
                continue;
            if (m_options.cancel)
                m_options.cancel->check();
            if (!mayShutOut(holder)) {
                m_result.holders.push_back(std::move(holder));
                continue;
            }
            shutOutHolder(m_result.mainFile, holder.number);
            m_result.shutOut.push_back(std::move(holder));
        }
        return m_result.holders.empty();
    }

    std::vector<StoreHolder> ask(std::vector<yx::CURI> const& files) {
        if (!m_result.areHoldersKnown)
            return {};
        try {
            return findHolders(files);
        } catch (yx::CIOError const& error) {
            if (error.getIOCode() != yx::CIOError::AccessDenied || m_options.force)
                throw;
            m_result.areHoldersKnown = false;
            m_result.whyUnknown = error.clone();
            return {};
        }
    }

    /// Nothing for a file that cannot be read as a disk.
    std::optional<DiskParts> readParts() const {
        if (!m_fileSystem->fileExists(m_result.mainFile)) {
            throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                               yx::CProps().add("uri", m_result.mainFile.toString(true)), nullptr);
        }
        try {
            return readDiskParts(m_fileSystem.get(), m_result.mainFile);
        } catch (yx::CIOError const& error) {
            if (kindOf(error) != ErrorKind::Damaged)
                throw;
            return std::nullopt;
        }
    }

    /// `freeOf` for the files of extents. A descriptor may name files of others: those whose names
    /// are not the disk's own are looked at first, which can take long if a dead client has them.
    bool freeExtents(DiskParts const& disk) {
        std::vector<yx::CURI> own = disk.extentFiles;
        auto const foreignBegin =
            std::stable_partition(own.begin(), own.end(), [&](yx::CURI const& extent) {
                return isExtentName(disk.getMainFile(), extent);
            });
        std::vector<yx::CURI> const foreign(foreignBegin, own.end());
        own.erase(foreignBegin, own.end());
        if (!freeOf(own, isSurelyHeld()))
            return false;
        verifyOwnsFiles(m_fileSystem.get(), disk, m_options.trust);
        return freeOf(foreign, isSurelyHeld());
    }

    bool tryClaim(std::optional<DiskParts> const& disk) {
        for (int round = 0; round < kMaxClaims; ++round) {
            try {
                DiskClaims claims(m_fileSystem.get());
                if (disk)
                    claims.add(*disk);
                else
                    claimMainFile(claims);
                m_result.refusal.reset();
                return true;
            } catch (yx::CLockFileError const& error) {
                if (!isInUse(error))
                    throw;
                m_result.refusal = std::make_shared<yx::CLockFileError>(error);
                if (error.getMessage() != yx::kLockFileIsRemovedMessage)
                    return false;
            }
        }
        return false;
    }

    void claimMainFile(DiskClaims& claims) const {
        claims.addName(m_result.mainFile);
        claims.addFile(m_result.mainFile);
    }

    DiskUnlockResult refuse() {
        m_result.refusal = std::make_shared<yx::CLockFileError>(
            yx::kLockFileInUseMessage, yx::CProps().add("uri", m_lockFile.toString(true)), nullptr);
        return m_result;
    }

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_lockFile;
    DiskUnlockOptions m_options;
    DiskUnlockResult m_result;
};

} // namespace

yx::CURI nameToUnlock(std::string const& argument) {
    if (!isStoreURI(argument))
        return uriFromArgument(argument);
    yx::CURI const uri(yx::String::fromUTF8(argument));
    if (!knowsHolders(uri))
        return uriFromArgument(argument);
    return resolveName(uri.getParent()) << uri.getName();
}

DiskUnlockResult unlockDisk(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                            DiskUnlockOptions const& options) {
    return DiskUnlocking(fileSystem, mainFile, options).run();
}

} // namespace kelm::host
