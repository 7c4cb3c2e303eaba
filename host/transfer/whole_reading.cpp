#include "host/transfer/whole_reading.h"

#include "host/disk/chain_members.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/table_verification.h"
#include "host/system/name_text.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

void warnOfDescriptors(SafeDisk& disk) {
    for (ChainMember const& member : listChainMembers(disk)) {
        if (getChecksumState(*member.descriptor, member.mainFile) == ChecksumState::Different) {
            yx::logWarning(yx::String::fromUTF8(
                displayName(member.mainFile) +
                ": the descriptor differs from its checksum: it is damaged, or other software has "
                "edited it"));
        }
    }
}

} // namespace

void beginWholeReading(SafeDisk& disk, CancelFlag const* cancel) {
    warnOfDescriptors(disk);
    verifyTables(disk, cancel);
}

} // namespace kelm::host
