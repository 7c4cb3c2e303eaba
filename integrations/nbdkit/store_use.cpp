#include "integrations/nbdkit/store_use.h"

#include "host/backups/descriptor_file.h"
#include "host/disk/safe_disk.h"
#include "kelm/format/file_reference.h"
#include "yx/error.h"
#include "yx/native_file_system.h"

namespace kelm::nbd {

namespace {

bool isLocal(yx::CURI const& uri) {
    return uri.getScheme() == "file";
}

bool areExtentsLocal(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile) {
    yx::TArray<yx::P<CVMDKExtentInfo>> extents;
    descriptor.getExtentEntries(extents);
    for (yx::P<CVMDKExtentInfo> const& extent : extents) {
        if (!isLocal(vmdkFileReferenceToURI(mainFile.getParent(), extent->getFilename())))
            return false;
    }
    return true;
}

} // namespace

bool usesStores(yx::CURI const& mainFile) {
    auto const files = yx::makeObject<yx::CNativeFileSystem>();
    yx::CURI disk = mainFile;
    try {
        for (std::size_t count = 0; count <= host::kMaxChainLength && !disk.isEmpty(); ++count) {
            if (!isLocal(disk))
                return true;
            CVMDKDescriptor const descriptor = host::readDescriptorFile(files.get(), disk).parse();
            if (!areExtentsLocal(descriptor, disk))
                return true;
            disk = host::findParentFile(descriptor, disk);
        }
    } catch (yx::CError const& error) {
        // The opening meets it too, and says what it is.
        error.nop();
    }
    return false;
}

} // namespace kelm::nbd
