#include "fuzz/support/too_dear.h"

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "kelm/format/constants.h"
#include "kelm/graindata/data_preparer.h"

namespace kelm::fuzz {

namespace {

using Buffer = yx::TBuffer<unsigned char>;

/// A grain may have 1 GiB, which takes as much memory to read. Larger ones are refused.
constexpr std::uint64_t kMaxTriedGrainSectors = 1024;

/// A key may take 2147483647 rounds to derive, some half an hour.
constexpr int kMaxTriedRoundDigits = 4;
constexpr std::string_view kRoundsPrefix = "hmac-sha1:";

std::uint64_t numberAt(Buffer const& file, int offset, int sizeBytes) {
    std::uint64_t value = 0;
    for (int i = sizeBytes; i-- > 0;)
        value = value << 8 | file.getData()[offset + i];
    return value;
}

bool hasHugeGrains(Buffer const& file) {
    constexpr int kGrainSizeOffset = 20;
    if (file.getUsed() < kSectorSizeBytes)
        return false;
    std::uint64_t const magic = numberAt(file, 0, 4);
    std::uint64_t const grainSize = numberAt(file, kGrainSizeOffset, 8);
    return (magic == kHeaderMagic || magic == kEncryptionExtensionHeaderMagic) &&
           grainSize > kMaxTriedGrainSectors &&
           grainSize <= static_cast<std::uint64_t>(CVMDKDataPreparer::kMaxGrainSizeSectors);
}

bool hasManyRounds(Buffer const& file) {
    std::string_view rest(reinterpret_cast<char const*>(file.getData()),
                          static_cast<std::size_t>(file.getUsed()));
    for (std::size_t at = rest.find(kRoundsPrefix); at != std::string_view::npos;
         at = rest.find(kRoundsPrefix)) {
        rest.remove_prefix(at + kRoundsPrefix.size());
        std::string_view const line = rest.substr(0, rest.find('\n'));
        auto const digits = std::count_if(line.begin(), line.end(), [](char character) {
            return character >= '0' && character <= '9';
        });
        if (digits > kMaxTriedRoundDigits)
            return true;
    }
    return false;
}

} // namespace

bool areTooDear(yx::CMemoryFileSystem& files) {
    for (yx::CURI const& uri : files.listFiles()) {
        Buffer const file = files.getFile(uri);
        if (hasHugeGrains(file) || hasManyRounds(file))
            return true;
    }
    return false;
}

} // namespace kelm::fuzz
