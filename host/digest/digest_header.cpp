#include "host/digest/digest_header.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "host/disk/digest_file_name.h"
#include "kelm/format/constants.h"
#include "kelm/format/internal/little_endian.h"
#include "yx/error.h"
#include "yx/memory.h"
#include "yx/mt_rand.h"

namespace kelm::host {

namespace {

constexpr std::size_t kMagicBytes = sizeof(kDigestFileMagic) - 1;
constexpr unsigned int kDigestVersion = 1;
constexpr unsigned int kAlgorithmSHA256 = 1;
constexpr unsigned int kAlgorithmHMAC = 2;
constexpr unsigned int kFlagHasImageDigest = 1;
constexpr int kSaltBytes = 16;

// Where the fields are; see the table in the header.
constexpr int kVersionAt = 8;
constexpr int kAlgorithmAt = 12;
constexpr int kDiskSizeAt = 16;
constexpr int kImageSizeAt = 24;
constexpr int kGrainSizeAt = 32;
constexpr int kContentIDAt = 36;
constexpr int kFlagsAt = 40;
constexpr int kSectionGrainsAt = 44;
constexpr int kSectionCountAt = 48;
constexpr int kDirectoryPositionAt = 56;
constexpr int kGrainCountAt = 64;
constexpr int kSaltAt = 80;
constexpr int kImageDigestAt = 96;
constexpr int kDirectoryDigestAt = 128;
constexpr int kRootAt = 480;

/// No disk has larger grains or is larger; see the limits of the sparse format.
constexpr int kMaxGrainBytes = 1 << 30;

template <class Number>
__int64 loadNumber(unsigned char const* source, int at) {
    return static_cast<__int64>(loadLittleEndian<Number>(source + at));
}

Digest loadDigest(unsigned char const* source) {
    Digest digest;
    std::copy_n(source, digest.size(), digest.begin());
    return digest;
}

void storeDigest(unsigned char* target, Digest const& digest) {
    std::copy(digest.begin(), digest.end(), target);
}

/// Hides the digest of an image, or shows it again.
Digest maskImageDigest(Digest digest, unsigned char const* salt, DigestKeys const& keys) {
    if (!keys.isKeyed)
        return digest;
    krym::CHasher_SHA256 hasher(keys.imageKey);
    hasher.update(salt, kSaltBytes);
    Digest mask;
    hasher.finish(mask.data());
    for (std::size_t i = 0; i < digest.size(); ++i)
        digest[i] = static_cast<unsigned char>(digest[i] ^ mask[i]);
    return digest;
}

void verifyFormat(unsigned char const* source, DigestKeys const& keys, yx::CURI const& uri) {
    yx::CProps const props = yx::CProps().add("uri", uri.toString(true));
    if (std::memcmp(source, kDigestFileMagic, kMagicBytes) != 0) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The file is no digest file.", props,
                           nullptr);
    }
    auto const version = loadLittleEndian<unsigned int>(source + kVersionAt);
    if (version != kDigestVersion) {
        throw yx::CIOError(yx::CIOError::UnsupportedVersion,
                           "Unsupported version of digest file: " + yx::toString(version), props,
                           nullptr);
    }
    auto const algorithm = loadLittleEndian<unsigned int>(source + kAlgorithmAt);
    if (algorithm != kAlgorithmSHA256 && algorithm != kAlgorithmHMAC) {
        throw yx::CIOError(yx::CIOError::UnsupportedVersion,
                           "Unsupported algorithm of digest file: " + yx::toString(algorithm),
                           props, nullptr);
    }
    // Plain digests beside an encrypted disk would be anybody's.
    if (algorithm != (keys.isKeyed ? kAlgorithmHMAC : kAlgorithmSHA256))
        throwBadDigestField("algorithm", algorithm, uri);
    if (DigestFileHasher(keys).hash(source, kRootAt) != loadDigest(source + kRootAt)) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "The digest file does not fit its root: it was damaged or changed.",
                           props, nullptr);
    }
}

} // namespace

void throwBadDigestField(char const* field, __int64 value, yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::CorruptData,
                       "Invalid " + yx::String(field) + " in digest file: " + yx::toString(value),
                       yx::CProps().add("uri", uri.toString(true)), nullptr);
}

void DigestHeader::store(unsigned char* target, DigestKeys const& keys) const {
    yx::initMemory(target, 0, kSizeBytes);
    std::memcpy(target, kDigestFileMagic, kMagicBytes);
    auto const put32 = [target](int at, __int64 value) {
        storeLittleEndian(target + at, static_cast<unsigned int>(value));
    };
    auto const put64 = [target](int at, __int64 value) {
        storeLittleEndian(target + at, static_cast<unsigned long long>(value));
    };
    put32(kVersionAt, kDigestVersion);
    put32(kAlgorithmAt, keys.isKeyed ? kAlgorithmHMAC : kAlgorithmSHA256);
    put64(kDiskSizeAt, diskSizeBytes);
    put64(kImageSizeAt, imageSizeBytes);
    put32(kGrainSizeAt, grainSizeBytes);
    put32(kContentIDAt, contentID);
    put32(kFlagsAt, imageDigest ? kFlagHasImageDigest : 0);
    put32(kSectionGrainsAt, kSectionGrains);
    put64(kSectionCountAt, sectionCount);
    put64(kDirectoryPositionAt, directoryPosition);
    put64(kGrainCountAt, grainCount);
    if (imageDigest && keys.isKeyed)
        yx::CMTRand::drawGlobalData(target + kSaltAt, kSaltBytes);
    if (imageDigest)
        storeDigest(target + kImageDigestAt, maskImageDigest(*imageDigest, target + kSaltAt, keys));
    storeDigest(target + kDirectoryDigestAt, directoryDigest);
    storeDigest(target + kRootAt, DigestFileHasher(keys).hash(target, kRootAt));
}

std::optional<DigestHeader> DigestHeader::load(unsigned char const* source, __int64 fileBytes,
                                               DigestKeys const& keys, yx::CURI const& uri) {
    if (yx::isAllZero(source, kSizeBytes))
        return std::nullopt;
    verifyFormat(source, keys, uri);
    DigestHeader header;
    header.diskSizeBytes = loadNumber<unsigned long long>(source, kDiskSizeAt);
    header.imageSizeBytes = loadNumber<unsigned long long>(source, kImageSizeAt);
    __int64 const grainSizeBytes = loadNumber<unsigned int>(source, kGrainSizeAt);
    if (grainSizeBytes < kSectorSizeBytes || grainSizeBytes > kMaxGrainBytes)
        throwBadDigestField("grain size", grainSizeBytes, uri);
    header.grainSizeBytes = static_cast<int>(grainSizeBytes);
    header.contentID = loadLittleEndian<unsigned int>(source + kContentIDAt);
    header.sectionCount = loadNumber<unsigned long long>(source, kSectionCountAt);
    header.directoryPosition = loadNumber<unsigned long long>(source, kDirectoryPositionAt);
    header.grainCount = loadNumber<unsigned long long>(source, kGrainCountAt);
    header.directoryDigest = loadDigest(source + kDirectoryDigestAt);
    __int64 const flags = loadNumber<unsigned int>(source, kFlagsAt);
    if (flags > kFlagHasImageDigest)
        throwBadDigestField("flags", flags, uri);
    if (flags == kFlagHasImageDigest)
        header.imageDigest =
            maskImageDigest(loadDigest(source + kImageDigestAt), source + kSaltAt, keys);
    __int64 const sectionGrains = loadNumber<unsigned int>(source, kSectionGrainsAt);
    if (sectionGrains != kSectionGrains)
        throwBadDigestField("section size", sectionGrains, uri);
    header.verify(fileBytes, uri);
    return header;
}

void DigestHeader::verify(__int64 fileBytes, yx::CURI const& uri) const {
    if (diskSizeBytes < 0)
        throwBadDigestField("disk size", diskSizeBytes, uri);
    if (imageSizeBytes < 0 || imageSizeBytes > diskSizeBytes)
        throwBadDigestField("image size", imageSizeBytes, uri);
    if (grainCount < 0 || grainCount > getDiskGrainCount())
        throwBadDigestField("number of grains", grainCount, uri);
    if (sectionCount < 0 || sectionCount > grainCount)
        throwBadDigestField("number of sections", sectionCount, uri);
    if (directoryPosition < kSizeBytes || directoryPosition > fileBytes)
        throwBadDigestField("directory position", directoryPosition, uri);
    // Divided, not multiplied, since the number is any that a file can hold.
    __int64 const directoryBytes = fileBytes - directoryPosition;
    if (directoryBytes % kDirectoryEntryBytes != 0 ||
        directoryBytes / kDirectoryEntryBytes != sectionCount)
        throwBadDigestField("number of sections", sectionCount, uri);
}

} // namespace kelm::host
