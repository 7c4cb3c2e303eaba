#include "host/disk/readable_sectors.h"

#include <algorithm>
#include <cassert>

#include "kelm/format/constants.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

bool tryRead(yx::IIOStream& stream, __int64 sector, __int64 sizeBytes, unsigned char* target) {
    try {
        stream.seek(sector * kSectorSizeBytes);
        stream.read(target, static_cast<int>(sizeBytes));
        return true;
    } catch (yx::CIOError const&) {
        return false;
    }
}

} // namespace

ReadableSectors readReadableSectors(yx::IIOStream& stream, __int64 sector, __int64 count) {
    assert(count >= 0);
    ReadableSectors result;
    result.bytes.resize(static_cast<std::size_t>(count * kSectorSizeBytes));
    result.isReadable.resize(static_cast<std::size_t>(count), false);
    __int64 const fileSectors = stream.getLength() / kSectorSizeBytes;
    if (sector < 0 || sector >= fileSectors)
        return result;
    __int64 const inFile = std::min(count, fileSectors - sector);
    if (tryRead(stream, sector, inFile * kSectorSizeBytes, result.bytes.data())) {
        std::fill_n(result.isReadable.begin(), inFile, true);
        return result;
    }
    for (__int64 i = 0; i < inFile; ++i) {
        unsigned char* const target = result.bytes.data() + i * kSectorSizeBytes;
        bool const isReadable = tryRead(stream, sector + i, kSectorSizeBytes, target);
        result.isReadable[static_cast<std::size_t>(i)] = isReadable;
        if (!isReadable)
            std::fill_n(target, kSectorSizeBytes, static_cast<unsigned char>(0));
    }
    return result;
}

int readSectorToEnd(yx::IIOStream& stream, __int64 sector, unsigned char* target) {
    __int64 const fileBytes = stream.getLength();
    if (sector < 0 || sector > fileBytes / kSectorSizeBytes)
        return 0;
    __int64 const sizeBytes =
        std::min<__int64>(kSectorSizeBytes, fileBytes - sector * kSectorSizeBytes);
    return tryRead(stream, sector, sizeBytes, target) ? static_cast<int>(sizeBytes) : 0;
}

} // namespace kelm::host
