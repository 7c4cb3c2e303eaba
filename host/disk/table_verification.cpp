#include "host/disk/table_verification.h"

#include <algorithm>
#include <optional>

#include "host/system/size_text.h"

namespace kelm::host {

namespace {

yx::CIOError makeError(DamagedTablePlace const& place, __int64 tableCount) {
    DiskExtent const& extent = place.extent;
    __int64 const startBytes = extent.startBytes + place.table.startSectors * kSectorSizeBytes;
    __int64 const endBytes =
        std::min(startBytes + place.table.sizeSectors * kSectorSizeBytes, extent.endBytes);
    __int64 const firstGrain =
        extent.getStartGrainIndex() + place.table.startSectors / extent.getGrainSizeSectors();
    __int64 const grainCount =
        (endBytes - startBytes + extent.grainSizeBytes - 1) / extent.grainSizeBytes;
    yx::String const table = yx::toString(place.table.tableIndex);
    return yx::CIOError(
        yx::CIOError::CorruptData,
        "Grain table " + table + " " + yx::String::fromUTF8(place.table.text) +
            ", so its grains may be lost.",
        yx::CProps()
            .add("uri", place.file.toString(true))
            .add("table", table)
            .add("grains", yx::String::fromUTF8(formatRange(firstGrain, firstGrain + grainCount)))
            .add("bytes", yx::String::fromUTF8(formatRange(startBytes, endBytes)))
            .add("damagedTables", yx::toString(tableCount)),
        nullptr);
}

} // namespace

void findDamagedTables(SafeDisk& disk, std::vector<ChainMember> const& members,
                       CancelFlag const* cancel,
                       std::function<void(DamagedTablePlace const&)> const& report) {
    yx::IFileSystem* const files = disk.getFileSystem();
    for (ChainMember const& member : members) {
        for (DiskExtent const& extent : member.extents) {
            if (!files->fileExists(extent.uri))
                continue;
            yx::P<yx::IIOStream> const stream =
                openVMDKFileStream(files, extent.uri, yx::IIOStream::ReadOnly);
            compareRedundantTables(*stream, extent.getStartGrainIndex(), cancel,
                                   [&](DamagedTable const& table) {
                                       report({extent.uri, extent, table});
                                   });
        }
    }
}

void verifyTables(SafeDisk& disk, CancelFlag const* cancel) {
    verifyTables(disk, listChainMembers(disk), cancel);
}

void verifyTables(SafeDisk& disk, std::vector<ChainMember> const& members,
                  CancelFlag const* cancel) {
    std::optional<DamagedTablePlace> first;
    __int64 count = 0;
    findDamagedTables(disk, members, cancel, [&](DamagedTablePlace const& place) {
        if (!first)
            first = place;
        ++count;
    });
    if (first)
        throw makeError(*first, count);
}

} // namespace kelm::host
