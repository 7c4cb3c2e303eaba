#include "host/disk/expected_extent.h"

namespace kelm::host {

bool isDiskOfOurs(CVMDKDescriptor const& descriptor) {
    return descriptor.hasValue("ddb.kelm.checksum") || descriptor.hasValue("ddb.kelm.state");
}

ExpectedExtent expectExtent(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                            DiskExtent const& extent) {
    ExpectedExtent expected;
    expected.sizeSectors = extent.getSizeSectors();
    expected.isCompressed = descriptor.getCreateType() == "streamOptimized";
    expected.holdsDescriptor = extent.uri == mainFile;
    expected.isOfOurs = isDiskOfOurs(descriptor);
    if (descriptor.isEncrypted())
        expected.keyHash = descriptor.getYxEncryptionKeyHash();
    return expected;
}

} // namespace kelm::host
