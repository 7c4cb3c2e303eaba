#include "host/backups/backup_pruning.h"

#include <algorithm>

#include "host/backups/descriptor_mending.h"
#include "host/backups/disk_note.h"
#include "host/backups/left_locks.h"
#include "host/store/folder_files.h"

namespace kelm::host {

namespace {

bool liesBelow(yx::CURI const& file, std::vector<yx::CURI> const& folders) {
    std::string const path = file.toNormalized().toString(true).toStdString();
    return std::any_of(folders.begin(), folders.end(), [&](yx::CURI const& folder) {
        std::string const prefix = folder.toNormalized().toString(true).toStdString();
        // The name of a root has its separator.
        return path.starts_with(prefix.ends_with('/') ? prefix : prefix + '/');
    });
}

/// Why a disk stays, whatever the rules say; empty if they decide.
std::string findExemption(std::vector<BackupDisk> const& disks, std::size_t index,
                          std::vector<yx::CURI> const& folders, std::string const& label) {
    BackupDisk const& disk = disks[index];
    if (!liesBelow(disk.mainFile, folders))
        return "not in the folder";
    if (!label.empty() && disk.label != label)
        return "another label";
    if (disk.state != BackupState::Complete)
        return nameOf(disk.state);
    for (BackupDisk const& child : disks) {
        if (child.parent == index && child.state != BackupState::Complete)
            return std::string("its child is ") + nameOf(child.state);
    }
    return {};
}

/// Disks whose main files are gone, and some of whose others are still there, since a program was
/// killed while it deleted them.
std::vector<yx::CURI> findHalfDeletedDisks(yx::IFileSystem* fileSystem,
                                           std::vector<yx::CURI> const& folders) {
    std::string const suffix = ".deleting";
    std::vector<yx::CURI> found;
    for (yx::CURI const& folder : folders) {
        for (yx::CURI const& file : listFilesBelow(folder)) {
            std::string const name = file.getName().toStdString();
            if (!name.ends_with(suffix))
                continue;
            yx::CURI const mainFile = (file.getParent() << yx::String::fromUTF8(
                                           name.substr(0, name.size() - suffix.size())))
                                          .toNormalized();
            if (!fileSystem->fileExists(mainFile) &&
                DiskNote::tryRead(fileSystem, mainFile, DiskNote::Work::Deleting))
                found.push_back(mainFile);
        }
    }
    return found;
}

} // namespace

std::vector<PruneVerdict> judgeBackups(yx::IFileSystem* fileSystem,
                                       std::vector<yx::CURI> const& folders,
                                       PruneOptions const& options) {
    std::vector<BackupDisk> const disks = listBackups(fileSystem, folders);
    std::vector<PruneVerdict> verdicts;
    std::vector<RetentionItem> items;
    std::vector<std::size_t> places;
    for (std::size_t index = 0; index < disks.size(); ++index) {
        BackupDisk const& disk = disks[index];
        verdicts.push_back({disk});
        std::string const exemption = findExemption(disks, index, folders, options.label);
        if (!exemption.empty()) {
            verdicts.back().reasons.push_back(exemption);
            continue;
        }
        places.push_back(index);
        items.push_back({disk.time, disk.source, disk.host});
    }
    std::vector<RetentionReasons> const reasons = RetentionPolicy(options.rules).judge(items);
    for (std::size_t i = 0; i < places.size(); ++i)
        verdicts[places[i]].reasons = reasons[i];
    return verdicts;
}

std::vector<PruneVerdict> pruneBackups(yx::IFileSystem* fileSystem,
                                       std::vector<yx::CURI> const& folders,
                                       PruneOptions const& options) {
    if (options.rules.isEmpty())
        throw yx::CInvalidArgError("pruneBackups", "The rules keep nothing.", yx::CProps());
    DurableFiles steps;
    mendDescriptors(fileSystem, steps, folders);
    std::vector<PruneVerdict> verdicts = judgeBackups(fileSystem, folders, options);
    if (options.tell)
        options.tell(verdicts);
    DiskDropOptions drop = options.drop;
    drop.lookIn = folders;
    auto const take = [&](yx::CURI const& mainFile) {
        if (options.dropDisk)
            options.dropDisk(mainFile, drop);
        else
            DiskDrop(fileSystem, steps, mainFile, drop).run();
    };
    for (yx::CURI const& mainFile : findHalfDeletedDisks(fileSystem, folders))
        take(mainFile);
    // Children before their parents, so that what several links hold is copied once.
    for (auto verdict = verdicts.rbegin(); verdict != verdicts.rend(); ++verdict) {
        if (verdict->reasons.empty())
            take(verdict->disk.mainFile);
    }
    removeLeftLocks(fileSystem, folders);
    return verdicts;
}

} // namespace kelm::host
