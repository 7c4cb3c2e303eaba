#include "host/backups/disk_rebase.h"

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "host/backups/descriptor_mending.h"
#include "host/backups/disk_parts.h"
#include "host/backups/disk_relink.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_names.h"
#include "host/system/cancel.h"
#include "host/transfer/kept_digests.h"
#include "host/transfer/parent_swap.h"
#include "host/transfer/parents_room.h"
#include "host/transfer/whole_reading.h"
#include "yx/lock_file.h"

namespace kelm::host {

namespace {

using Chain = std::vector<std::unique_ptr<SafeDisk>>;

/// The disk and its parents, the nearest first.
Chain openDiskAndParents(yx::IFileSystem* fileSystem, yx::CURI const& disk,
                         DiskRebaseOptions const& options) {
    Chain chain;
    chain.push_back(std::make_unique<SafeDisk>(fileSystem, disk, yx::IIOStream::ReadOnly,
                                               options.password, -1,
                                               CVMDKGrainTableCache::kDefaultLimit, options.trust));
    Chain parents = openParents(fileSystem, *chain.front(), options.password);
    std::move(parents.begin(), parents.end(), std::back_inserter(chain));
    return chain;
}

Chain openOldParents(yx::IFileSystem* fileSystem, yx::CURI const& child, yx::CURI const& parent,
                     DiskRebaseOptions const& options) {
    try {
        Chain chain = openDiskAndParents(fileSystem, parent, options);
        verifyIsContentOfParent(fileSystem, child, *chain.front());
        return chain;
    } catch (CancelledError const&) {
        throw;
    } catch (yx::CLockFileError const&) {
        throw;
    } catch (yx::CError const& error) {
        throw OldParentError(child, error);
    }
}

void verifyIsNotIn(Chain const& chain, yx::CURI const& child) {
    bool const isIn = std::any_of(chain.begin(), chain.end(), [&](auto const& disk) {
        return isSameFile(disk->getDisk().getMainFileURI(), child);
    });
    if (isIn) {
        throw yx::CIOError(yx::CIOError::NotAllowed,
                           "The new parent is the disk itself, or depends on it.",
                           yx::CProps().add("uri", child.toString(true)), nullptr);
    }
}

/// Down to the first disk that both chains have.
ParentSwap::Parents findSwap(Chain const& oldChain, Chain const& newChain) {
    ParentSwap::Parents parents;
    parents.oldParent = oldChain.front().get();
    parents.newParent = newChain.front().get();
    auto const isIn = [](Chain const& chain, SafeDisk& disk) {
        return std::any_of(chain.begin(), chain.end(), [&](auto const& each) {
            return isSameFile(each->getDisk().getMainFileURI(), disk.getDisk().getMainFileURI());
        });
    };
    for (auto const& disk : oldChain) {
        if (isIn(newChain, *disk))
            break;
        parents.left.push_back(disk.get());
    }
    for (auto const& disk : newChain) {
        if (isIn(oldChain, *disk))
            break;
        parents.joined.push_back(disk.get());
    }
    return parents;
}

__int64 countBytes(SafeDisk& disk, GrainSet const& grains) {
    __int64 count = 0;
    for (__int64 grain = grains.findNext(0); grain < grains.getGrainCount();
         grain = grains.findNext(grain + 1))
        ++count;
    return std::min(count * disk.getGrainSizeBytes(), disk.getSizeBytes());
}

} // namespace

OldParentError::OldParentError(yx::CURI const& child, yx::CError const& cause)
    : CError("The old parent of the disk cannot be read.", "", -1,
             yx::CProps().add("uri", child.toString(true)), &cause) {}

std::shared_ptr<yx::CError const> OldParentError::clone() const {
    return std::make_shared<OldParentError>(*this);
}

__int64 rebaseDisk(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& child,
                   yx::CURI const& newParent, DiskRebaseOptions const& options) {
    mendDescriptor(fileSystem, steps, child);
    yx::CURI const oldParent = readDiskParts(fileSystem, child).parentFile;
    if (oldParent.isEmpty()) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The disk has no parent.",
                           yx::CProps().add("uri", child.toString(true)), nullptr);
    }
    Chain const newChain = openDiskAndParents(fileSystem, newParent, options);
    verifyIsNotIn(newChain, child);
    Chain const oldChain = openOldParents(fileSystem, child, oldParent, options);
    __int64 copiedBytes = 0;
    {
        std::unique_ptr<SafeDisk> const disk =
            openToFill(fileSystem, child, options.password, options.trust, options.work.cancel);
        beginWholeReading(*disk, options.work.cancel);
        beginWholeReading(*newChain.front(), options.work.cancel);
        ParentSwap swap(*disk, findSwap(oldChain, newChain));
        GrainSet const grains = swap.findByContent(options.work);
        swap.verifyCanHold(grains);
        ParentsRoom room;
        room.add(*disk, grains, options.work.cancel);
        room.verify();
        if (!grains.isEmpty())
            holdGrainsWithDigests(fileSystem, *disk, options.password, grains, options.work);
        copiedBytes = countBytes(*disk, grains);
    }
    relinkDisk(fileSystem, steps, child, *oldChain.front(), newChain.front().get());
    return copiedBytes;
}

} // namespace kelm::host
