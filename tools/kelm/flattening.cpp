#include "tools/kelm/flattening.h"

#include <memory>

#include "host/disk/parent_link.h"
#include "host/system/name_text.h"
#include "host/transfer/kept_digests.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"

namespace kelm::tool {

namespace {

std::unique_ptr<host::SafeDisk> openChild(Invocation& invocation, std::string const& file,
                                          PasswordOptions& passwords) {
    std::unique_ptr<host::SafeDisk> disk =
        openDisk(invocation, file, yx::IIOStream::ReadWrite, passwords);
    if (!disk->hasParent())
        throw UsageError("The disk has no parent: " + file);
    return disk;
}

} // namespace

void flattenDisk(Invocation& invocation, std::string const& file, PasswordOptions& passwords) {
    // An attempt that was killed may have copied grains that no table names.
    std::unique_ptr<host::SafeDisk> const disk =
        openToGoOn(invocation, [&] { return openChild(invocation, file, passwords); });
    host::KeptDigests digests(invocation.getFiles(), *disk, usedPassword(invocation, passwords));
    LongWork const work(invocation, "flatten");
    host::makeIndependentOfParent(*disk, work.getOptions());
    host::dropParentLink(*disk);
    digests.finish(work.getQuietOptions());
    invocation.getResult().add({{"file", host::displayName(disk->getDisk().getMainFileURI())}});
}

} // namespace kelm::tool
