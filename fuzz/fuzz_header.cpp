// The header record, and the opening and checking of the extent file that it heads. The input is
// the file.

#include <cstring>

#include "fuzz/support/harness.h"
#include "host/check/extent_check.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/constants.h"
#include "yx/buffer_stream.h"

namespace {

using namespace kelm;
using kelm::fuzz::attempt;
using kelm::fuzz::require;

constexpr int kRedundantDirectoryOffset = 48;
constexpr int kUncleanShutdownOffset = 72;
constexpr int kNewLineDetectionOffset = 73;
constexpr int kNewLineDetectionSizeBytes = 4;

yx::TBuffer<unsigned char> storeHeader(CVMDKSparseExtentHeader& header) {
    yx::TBuffer<unsigned char> record;
    yx::CBufferStream stream(&record, 2.0);
    yx::CDataOutStream out(&stream);
    header.store(out);
    return record;
}

/// Whether storing may change this byte of a record that loads.
bool isRewritten(int offset, unsigned int flags) {
    if (offset >= kRedundantDirectoryOffset && offset < kRedundantDirectoryOffset + 8)
        return (flags & kFlagRedundantGrainDirectory) == 0;
    if (offset >= kNewLineDetectionOffset &&
        offset < kNewLineDetectionOffset + kNewLineDetectionSizeBytes)
        return (flags & kFlagNewLineDetectionValid) == 0;
    return offset == kUncleanShutdownOffset;
}

void checkRecord(yx::TBuffer<unsigned char>& file) {
    yx::CBufferStream stream(&file, 2.0);
    yx::CDataInStream in(&stream);
    CVMDKSparseExtentHeader header;
    if (!attempt([&] { header.load(in); }))
        return;
    yx::TBuffer<unsigned char> record = storeHeader(header);
    require(record.getUsed() == kSectorSizeBytes, "a header record has 512 bytes");
    for (int i = 0; i < kSectorSizeBytes; ++i) {
        require(record.getData()[i] == file.getData()[i] || isRewritten(i, header.getFlags()),
                "a header is stored as it was loaded");
    }

    yx::CBufferStream again(&record, 2.0);
    yx::CDataInStream inAgain(&again);
    CVMDKSparseExtentHeader reloaded;
    reloaded.load(inAgain);
    require(std::memcmp(storeHeader(reloaded).getData(), record.getData(), kSectorSizeBytes) == 0,
            "a stored header loads as what was stored");
}

void checkExtentFile(yx::TBuffer<unsigned char>& file) {
    yx::CBufferStream stream(&file, 2.0);
    host::DiskExtent place;
    place.endBytes = __int64{16} * kSectorSizeBytes;
    host::KnownGrains known;
    attempt([&] {
        host::checkExtent(
            stream, place, nullptr, [](std::string const&) {}, known);
    });
    attempt([&] {
        stream.seek(0);
        CVMDKGrainTableCache cache;
        CVMDKSparseExtentFile extent(&stream, yx::IIOStream::ReadOnly, 0, -1, &cache, nullptr,
                                     nullptr, nullptr, yx::TCryptBuffer<unsigned char>(),
                                     yx::TBuffer<unsigned char>());
        require(extent.getGrainSizeSectors() > 0, "an open extent has a grain size");
        extent.isGrainWritten();
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    yx::TBuffer<unsigned char> file = kelm::fuzz::toBuffer({data, size});
    checkRecord(file);
    checkExtentFile(file);
    return 0;
}
