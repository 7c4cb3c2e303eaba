#include "host/transfer/whole_reading.h"

#include "host/disk/chain_members.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/table_verification.h"
#include "host/system/name_text.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

void warnOfDescriptors(std::vector<ChainMember> const& members) {
    for (ChainMember const& member : members) {
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
    std::vector<ChainMember> const members = listChainMembers(disk);
    warnOfDescriptors(members);
    verifyTables(disk, members, cancel);
    disk.mergeChain();
}

} // namespace kelm::host
