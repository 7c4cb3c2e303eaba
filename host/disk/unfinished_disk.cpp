#include "host/disk/unfinished_disk.h"

namespace kelm::host {

UnfinishedDiskError::UnfinishedDiskError(yx::CURI const& mainFile)
    : CError("The disk is unfinished: it has not been filled to its end.", "", -1,
             yx::CProps().add("uri", mainFile.toString(true)), nullptr) {}

std::shared_ptr<yx::CError const> UnfinishedDiskError::clone() const {
    return std::make_shared<UnfinishedDiskError>(*this);
}

} // namespace kelm::host
