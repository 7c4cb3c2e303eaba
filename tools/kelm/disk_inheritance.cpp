#include "tools/kelm/disk_inheritance.h"

#include "host/disk/disk_record.h"

namespace kelm::tool {

void inheritRecord(CVMDKDescriptor& from, host::NewDisk& request) {
    host::DiskRecord const record(from);
    request.time = record.getTime();
    request.source = record.getSource();
    request.host = record.getHost();
    if (request.label.empty())
        request.label = record.getLabel();
}

} // namespace kelm::tool
