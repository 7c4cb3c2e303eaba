#include "host/disk/main_file_form.h"

#include <algorithm>
#include <array>
#include <span>

#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "yx/error.h"

namespace kelm::host {

namespace {

using FileStart = std::span<unsigned char const>;

constexpr int kLookedAtBytes = 1024;

/// How much of a text must look like one. What stands behind may be anything that a hostile
/// descriptor says, on which the library has its own words.
constexpr std::ptrdiff_t kTextLookedAtBytes = 16;

/// A text of letters has a zero in every second byte.
constexpr std::size_t kLettersLookedAt = 4;

bool isOfText(unsigned char byte) {
    constexpr unsigned char kBlank = 0x20;
    constexpr unsigned char kDelete = 0x7F;
    return byte == '\t' || byte == '\n' || byte == '\v' || byte == '\f' || byte == '\r' ||
           (byte >= kBlank && byte != kDelete);
}

bool isExtent(FileStart start) {
    auto const magic = loadLittleEndian<unsigned int>(start.data());
    return magic == kHeaderMagic || magic == kEncryptionExtensionHeaderMagic;
}

/// Whether letters begin at `first`, and zeros stand beside them.
bool isUTF16Text(FileStart start, std::size_t first) {
    if (start.size() < 2 * kLettersLookedAt)
        return false;
    for (std::size_t i = 0; i < 2 * kLettersLookedAt; ++i) {
        bool const isLetter = i % 2 == first;
        if (isLetter ? start[i] == 0 || !isOfText(start[i]) : start[i] != 0)
            return false;
    }
    return true;
}

bool isUTF16(FileStart start) {
    bool const hasMark =
        (start[0] == 0xFF && start[1] == 0xFE) || (start[0] == 0xFE && start[1] == 0xFF);
    FileStart const text = hasMark ? start.subspan(2) : start;
    return isUTF16Text(text, 0) || isUTF16Text(text, 1);
}

/// Zeros fill the file behind a text, but nothing stands before it.
bool isText(FileStart start) {
    auto const zeros = std::find(start.begin(), start.end(), 0);
    auto const end = start.begin() + std::min(zeros - start.begin(), kTextLookedAtBytes);
    return end != start.begin() && std::all_of(start.begin(), end, isOfText);
}

} // namespace

void verifyIsExtentOrText(yx::IIOStream& stream, yx::CURI const& uri) {
    std::array<unsigned char, kLookedAtBytes> bytes{};
    stream.seek(0);
    int const count = stream.readLax(bytes.data(), kLookedAtBytes);
    // Too short for either, which the library says.
    if (count < static_cast<int>(sizeof(unsigned int)))
        return;
    FileStart const start(bytes.data(), static_cast<std::size_t>(count));
    if (isExtent(start))
        return;
    yx::CProps const props = yx::CProps().add("uri", uri.toString(true));
    if (isUTF16(start)) {
        throw yx::CIOError(yx::CIOError::NotSupported,
                           "The descriptor is stored as UTF-16. Store it as UTF-8.", props,
                           nullptr);
    }
    if (!isText(start)) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "The file is a raw image, not a disk, or its beginning is destroyed.",
                           props, nullptr);
    }
}

} // namespace kelm::host
