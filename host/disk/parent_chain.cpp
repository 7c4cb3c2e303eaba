#include "host/disk/parent_chain.h"

#include "yx/error.h"

namespace kelm::host {

std::vector<std::unique_ptr<SafeDisk>> openParents(yx::IFileSystem* fileSystem, SafeDisk& disk,
                                                   yx::String const& password) {
    std::vector<std::unique_ptr<SafeDisk>> parents;
    SafeDisk* child = &disk;
    while (child->hasParent()) {
        yx::CURI const uri = child->getDisk().getParentDiskMainURI();
        if (parents.size() >= kMaxChainLength) {
            throw yx::CIOError(yx::CIOError::CorruptData, "VMDK parent chain is too long.",
                               yx::CProps().add("parentURI", uri.toString(true)), nullptr);
        }
        parents.push_back(std::make_unique<SafeDisk>(
            fileSystem, uri, yx::IIOStream::ReadOnly, password, -1,
            CVMDKGrainTableCache::kDefaultLimit, disk.getTrust().ofParents()));
        child = parents.back().get();
    }
    return parents;
}

} // namespace kelm::host
