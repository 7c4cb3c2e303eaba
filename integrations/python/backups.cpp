// What knows chains of disks: what there is, and how links are taken out, joined and named anew.

#include <memory>
#include <optional>

#include "host/backups/backup_pruning.h"
#include "host/backups/disk_move.h"
#include "host/backups/disk_unlocking.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_names.h"
#include "host/transfer/chain_difference.h"
#include "host/transfer/disk_conversion.h"
#include "host/transfer/exact_size.h"
#include "host/transfer/parents_room.h"
#include "integrations/python/bindings.h"
#include "integrations/python/disk_opening.h"
#include "integrations/python/key_scope.h"
#include "integrations/python/new_disk.h"
#include "integrations/python/work.h"

namespace kelm::python {

namespace {

namespace py = pybind11;
using Paths = std::vector<std::string>;

py::object nameOfParent(std::vector<host::BackupDisk> const& disks, host::BackupDisk const& disk) {
    if (disk.parentFile.isEmpty())
        return py::none();
    return toText(disk.parent ? disks[*disk.parent].mainFile : disk.parentFile);
}

/// The fields of `kelm.Backup`.
py::dict describeBackup(std::vector<host::BackupDisk> const& disks, host::BackupDisk const& disk) {
    py::dict backup;
    backup["path"] = toText(disk.mainFile);
    backup["state"] = host::nameOf(disk.state);
    backup["problem"] = toTextOrNone(disk.problem);
    backup["time"] = toTextOrNone(disk.time);
    backup["source"] = toTextOrNone(disk.source);
    backup["host"] = toTextOrNone(disk.host);
    backup["label"] = toTextOrNone(disk.label);
    backup["size"] = disk.sizeBytes;
    backup["image_size"] = disk.imageBytes;
    backup["own_bytes"] = disk.ownBytes;
    backup["compressed"] = disk.isCompressed;
    backup["encrypted"] = disk.isEncrypted;
    backup["on_demand"] = disk.isOnDemand;
    backup["file_count"] = disk.fileCount;
    backup["parent"] = nameOfParent(disks, disk);
    backup["parent_count"] = disk.parentCount;
    backup["dependent_count"] = disk.dependentCount;
    return backup;
}

py::list listBackups(Paths const& folders) {
    std::vector<host::BackupDisk> disks;
    runWork(py::none(), 0, [&](host::WorkOptions const&) {
        auto const files = yx::makeObject<host::FileSystems>();
        disks = host::listBackups(files.get(), toURIs(folders));
    });
    py::list backups;
    for (host::BackupDisk const& disk : disks)
        backups.append(describeBackup(disks, disk));
    return backups;
}

/// Tuples of the file, its time, and the reasons for which it stays.
py::list describeVerdicts(std::vector<host::PruneVerdict> const& verdicts) {
    py::list list;
    for (host::PruneVerdict const& verdict : verdicts) {
        py::list reasons;
        for (std::string const& reason : verdict.reasons)
            reasons.append(toText(reason));
        list.append(py::make_tuple(toText(verdict.disk.mainFile), toTextOrNone(verdict.disk.time),
                                   reasons));
    }
    return list;
}

/// `keep` are the numbers of `host::RetentionRules`, in its order.
py::list prune(Paths const& folders, std::vector<int> const& keep, std::string const& label,
               bool isDryRun, py::object const& password, Paths const& allowPaths, int threads,
               py::object const& progress) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    host::PruneOptions options;
    options.rules = {keep.at(0), keep.at(1), keep.at(2), keep.at(3), keep.at(4), keep.at(5)};
    options.label = label;
    options.drop.password = access.password.get();
    options.drop.trust = access.trust;
    options.drop.verify = true;
    std::vector<host::PruneVerdict> verdicts;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        std::vector<yx::CURI> const uris = toURIs(folders);
        options.drop.work = work;
        verdicts = isDryRun ? host::judgeBackups(files.get(), uris, options)
                            : host::pruneBackups(files.get(), uris, options);
    });
    return describeVerdicts(verdicts);
}

/// Where children of a disk are looked for: in its folder, unless the user names others.
std::vector<yx::CURI> foldersToLookIn(Paths const& folders, yx::CURI const& mainFile) {
    return folders.empty() ? std::vector{mainFile.getParent()} : toURIs(folders);
}

py::tuple drop(std::string const& path, Paths const& lookIn, bool verify,
               py::object const& password, Paths const& allowPaths, int threads,
               py::object const& progress) {
    Access const access = Access::make(password, allowPaths);
    KeyScope const keys;
    host::DiskDropResult result;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        yx::CURI const uri = host::uriFromArgument(path);
        host::DiskDropOptions options;
        options.lookIn = foldersToLookIn(lookIn, uri);
        options.password = access.password.get();
        options.trust = access.trust;
        options.verify = verify;
        options.work = work;
        host::DurableFiles steps;
        result = host::DiskDrop(files.get(), steps, uri, options).run();
    });
    return py::make_tuple(toTexts(result.files), toTexts(result.children));
}

py::tuple rename(std::string const& from, std::string const& to, Paths const& lookIn,
                 Paths const& allowPaths, py::object const& progress) {
    Access const access = Access::make(py::none(), allowPaths);
    host::DiskMoveResult result;
    runWork(progress, 0, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        yx::CURI const uri = host::uriFromArgument(from);
        host::DiskMoveOptions options;
        options.lookIn = foldersToLookIn(lookIn, uri);
        options.trust = access.trust;
        options.work = work;
        host::DurableFiles steps;
        result = host::DiskMove(files.get(), steps, uri, host::uriFromArgument(to), options).run();
    });
    return py::make_tuple(toTexts(result.files), toTexts(result.children));
}

/// The links of a chain that become one.
struct MergedLinks {
    std::unique_ptr<host::SafeDisk> last;
    std::vector<std::unique_ptr<host::SafeDisk>> parents;

    /// From the last to the first.
    std::vector<host::SafeDisk*> merged = {};

    /// Null if the first has none.
    host::SafeDisk* base = nullptr;
};

/// Finds the first link among the last one and its parents.
MergedLinks openLinks(yx::IFileSystem* files, std::string const& first, std::string const& last,
                      Access const& access) {
    MergedLinks links;
    links.last = openToRead(files, last, access);
    links.parents = host::openParents(files, *links.last, access.password.get());
    links.merged = {links.last.get()};
    yx::CURI const firstFile = host::uriFromArgument(first);
    auto const isFound = [&] {
        return host::isSameFile(links.merged.back()->getDisk().getMainFileURI(), firstFile);
    };
    for (std::unique_ptr<host::SafeDisk> const& parent : links.parents) {
        if (isFound()) {
            links.base = parent.get();
            return links;
        }
        links.merged.push_back(parent.get());
    }
    if (!isFound()) {
        throw yx::CInvalidArgError("merge",
                                   "The last disk is no child of the first one, nor one of its "
                                   "children's.",
                                   yx::CProps());
    }
    return links;
}

MadeDisk mergeLinks(MergedLinks const& links, std::string const& target, NewDiskOptions options,
                    Access const& access, host::WorkOptions const& work) {
    auto const files = yx::makeObject<host::FileSystems>();
    host::SafeDisk& last = *links.last;
    yx::CURI const uri = host::uriFromArgument(target);
    std::vector<yx::CURI> const sourceFiles =
        listChainFiles(files.get(), last, access.password.get());
    verifyIsNoneOf(sourceFiles, uri);
    if (links.base)
        options.parent = links.base->getDisk().getMainFileURI().toString(true).toStdString();
    options.sizeBytes = last.getSizeBytes();
    host::NewDisk request = options.makeRequest(files.get(), access);
    request.isToBeFilled = true;
    inheritRecord(last, request);
    bool const keepsExactSize = host::keepsExactSize(last);
    __int64 const exactBytes = host::getExactSizeBytes(last);
    if (keepsExactSize)
        request.imageBytes = exactBytes;
    host::GrainSet const grains =
        host::findGrainsOfLinks(last, links.merged, links.base, work.cancel);
    host::ParentsRoom room;
    room.addNewDisk(last, grains, {uri, request.compressed}, work.cancel);
    room.verify("There is no room for what the links hold.");
    DiskMaking making(files.get(), uri, request, *work.cancel, sourceFiles);
    host::SafeDisk& to = making.getDisk();
    host::ConversionDigests digests;
    if (options.digests)
        digests = making.addDigestsOfCopy(files.get(), last, access.password.get());
    host::convertGrainsOf(last, to, grains, work, host::RecordCheck::Decode, digests);
    if (keepsExactSize)
        host::setExactSizeBytes(to, exactBytes);
    __int64 const imageBytes = keepsExactSize ? exactBytes : to.getSizeBytes();
    MadeDisk made{uri, to.getSizeBytes(), imageBytes, options.digests};
    making.finish(imageBytes, withoutProgress(work));
    return made;
}

py::dict merge(std::string const& first, std::string const& last, std::string const& target,
               GivenOptions const& options, py::object const& password, Paths const& allowPaths,
               int threads, py::object const& progress) {
    Access const access = Access::make(password, allowPaths);
    NewDiskOptions const& wanted = getHeld(options);
    KeyScope const keys;
    MadeDisk made;
    runWork(progress, threads, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        MergedLinks const links = openLinks(files.get(), first, last, access);
        made = mergeLinks(links, target, wanted, access, work);
    });
    return made.describe();
}

/// The fields of `kelm.Holder`.
py::list describeHolders(std::vector<host::StoreHolder> const& holders) {
    py::list list;
    for (host::StoreHolder const& holder : holders) {
        py::dict one;
        one["client"] = toText(holder.number);
        one["host"] = toTextOrNone(holder.host);
        one["user"] = toTextOrNone(holder.user);
        one["process"] = toTextOrNone(holder.process);
        one["lives_here"] = holder.life == host::StoreHolder::Life::LivesHere;
        list.append(one);
    }
    return list;
}

py::dict unlock(std::string const& path, bool force, Paths const& allowPaths) {
    Access const access = Access::make(py::none(), allowPaths);
    host::DiskUnlockResult result;
    runWork(py::none(), 0, [&](host::WorkOptions const& work) {
        auto const files = yx::makeObject<host::FileSystems>();
        host::DiskUnlockOptions options;
        options.force = force;
        options.trust = access.trust;
        options.cancel = work.cancel;
        result = host::unlockDisk(files.get(), host::nameToUnlock(path), options);
    });
    py::dict unlocked;
    unlocked["is_free"] = !result.refusal;
    unlocked["are_holders_known"] = result.areHoldersKnown;
    unlocked["holders"] = describeHolders(result.holders);
    unlocked["shut_out"] = describeHolders(result.shutOut);
    return unlocked;
}

} // namespace

void addBackups(py::module_& module) {
    module.def("list_backups", &listBackups);
    module.def("prune", &prune);
    module.def("drop", &drop);
    module.def("rename", &rename);
    module.def("merge", &merge);
    module.def("unlock", &unlock);
}

} // namespace kelm::python
