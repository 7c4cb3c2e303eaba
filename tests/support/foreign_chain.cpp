#include "tests/support/foreign_chain.h"

#include <algorithm>
#include <iomanip>
#include <numeric>
#include <sstream>

#include "kelm/kelm.h"
#include "tests/support/byte_builder.h"

namespace test_support {

namespace {

constexpr __int64 kForeignSectorBytes = 512;
constexpr __int64 kDescriptorSectors = 20;
constexpr unsigned int kNoForeignParentID = 0xFFFFFFFF;

/// The fewest rounds that a disk may have, so that chains open fast.
constexpr char kForeignDerivation[] = "pkcs5-pbkdf2-hmac-sha1:1000";

/// Offsets in the header, and of the header's copy before the end of a compressed file.
constexpr std::size_t kForeignCapacityOffset = 12;
constexpr std::size_t kForeignFooterBytes = 1024;

__int64 roundedUp(__int64 value, __int64 divisor) {
    return (value + divisor - 1) / divisor;
}

yx::String text(std::string const& utf8) {
    return yx::String::fromUTF8(utf8);
}

/// Gives the descriptor a disk key and returns the key's hash.
Buffer addKey(kelm::CVMDKDescriptor& descriptor, std::string const& password) {
    krym::CCipher_AES256CBC cipher;
    Buffer const iv = toBuffer(pattern(16, 1));
    Buffer const salt = toBuffer(pattern(32, 2));
    Bytes const key = pattern(32, 3);
    yx::TCryptBuffer<unsigned char> derivedKey;
    kelm::CVMDKDisk::deriveEncryptKey(derivedKey, 32, text(password), kForeignDerivation, salt);
    Buffer wrappedKey(32, -1);
    cipher.encrypt(derivedKey, key.data(), 32, wrappedKey, false, iv.getData());
    yx::P<krym::IDigest> const digest = krym::CDigestType_SHA256().createDigest();
    digest->update(key.data(), 32);
    digest->finish();
    Buffer hash(digest->getSize(), -1);
    yx::copyMemory(hash.getData(), digest->getData(), static_cast<std::size_t>(hash.getUsed()));

    descriptor.setYxEncryptionAlgorithm("aes256cbc");
    descriptor.setYxEncryptionIV(iv);
    descriptor.setYxEncryptionKeyDerivationAlgorithm(kForeignDerivation);
    descriptor.setYxEncryptionKeyDerivationSalt(salt);
    descriptor.setYxEncryptedEncryptionKey(wrappedKey);
    descriptor.setYxEncryptionKeyHashAlgorithm("sha256");
    descriptor.setYxEncryptionKeyHash(hash);
    return hash;
}

unsigned int contentIDOf(yx::IFileSystem& files, yx::CURI const& uri, std::string const& password) {
    return kelm::CVMDKDisk(&files, uri, yx::IIOStream::ReadOnly, text(password), 1, nullptr,
                           nullptr)
        .getDescriptor()
        ->getContentID();
}

char const* createTypeOf(ForeignDisk const& disk) {
    if (disk.isCompressed())
        return "streamOptimized";
    return disk.embedded ? "monolithicSparse" : "twoGbMaxExtentSparse";
}

/// Lets the capacity in a file's header end where its line does.
void cutCapacity(yx::IFileSystem& files, yx::CURI const& uri, ForeignExtent const& extent) {
    Bytes bytes = readFile(files, uri);
    auto const put = [&](std::size_t offset) {
        for (unsigned int i = 0; i < 8; ++i)
            bytes.at(offset + i) = static_cast<unsigned char>(extent.sizeSectors >> (8 * i));
    };
    put(kForeignCapacityOffset);
    if (extent.compressed)
        put(bytes.size() - kForeignFooterBytes + kForeignCapacityOffset);
    writeFile(files, uri, bytes);
}

void makeExtent(yx::IFileSystem& files, yx::CURI const& uri, ForeignExtent const& extent,
                kelm::CVMDKDescriptor* descriptor, Buffer const& keyHash) {
    __int64 const grainCount = roundedUp(extent.sizeSectors, extent.grainSizeSectors);
    kelm::createEmptyVMDKSparseExtentFile(&files, uri, extent.compressed, grainCount,
                                          extent.grainSizeSectors, toBuffer(zeros(65536)),
                                          descriptor, descriptor ? kDescriptorSectors : 0, keyHash);
    if (!extent.hasRoundedCapacity && extent.sizeSectors % extent.grainSizeSectors != 0)
        cutCapacity(files, uri, extent);
}

/// Draws one disk after the other for a chain.
class ChainDrawer {
public:
    explicit ChainDrawer(std::mt19937& random)
        : m_random(random),
          m_isUniform(below(3) == 0),
          m_grainSizeSectors(drawGrainSize()),
          m_compressed(below(2) == 0) {}

    std::vector<ForeignDisk> draw() {
        std::vector<ForeignDisk> chain(2 + below(3));
        for (std::size_t level = 0; level < chain.size(); ++level)
            chain[level] = drawDisk(level);
        return chain;
    }

private:
    unsigned int below(unsigned int limit) { return static_cast<unsigned int>(m_random()) % limit; }

    __int64 drawGrainSize() {
        constexpr __int64 kSizes[] = {8, 16, 64, 128, 128, 256, 512, 2048};
        return kSizes[below(static_cast<unsigned int>(std::size(kSizes)))];
    }

    /// Small extents, now and then one of several grain tables.
    __int64 drawGrainCount(__int64 grainSizeSectors) {
        __int64 const most = std::clamp<__int64>(3072 / grainSizeSectors, 2, 40);
        if (grainSizeSectors == 8 && below(6) == 0)
            return 513 + below(200);
        return 1 + below(static_cast<unsigned int>(most));
    }

    ForeignDisk drawDisk(std::size_t level) {
        ForeignDisk disk;
        disk.name = "level" + std::to_string(level) + ".vmdk";
        if (below(4) == 0)
            disk.password = kForeignPassword;
        std::size_t const count = 1 + below(4);
        for (std::size_t i = 0; i < count; ++i)
            disk.extents.push_back(drawExtent(disk));
        disk.embedded = count == 1 && below(2) == 0;
        return disk;
    }

    ForeignExtent drawExtent(ForeignDisk const& disk) {
        bool const isFirst = disk.extents.empty();
        bool const isUniform = m_isUniform || (!isFirst && below(2) == 0);
        ForeignExtent extent;
        extent.grainSizeSectors = m_isUniform ? m_grainSizeSectors : drawGrainSize();
        extent.compressed = m_isUniform ? m_compressed : below(2) == 0;
        if (isUniform && !isFirst) {
            extent.grainSizeSectors = disk.extents.front().grainSizeSectors;
            extent.compressed = disk.extents.front().compressed;
        }
        extent.sizeSectors = drawGrainCount(extent.grainSizeSectors) * extent.grainSizeSectors;
        if (!isFirst && isUniform && below(3) == 0) {
            extent.onDemand = true;
        } else if (!m_isUniform && below(2) == 0) {
            extent.sizeSectors -= below(static_cast<unsigned int>(extent.grainSizeSectors));
            extent.hasRoundedCapacity = below(2) == 0;
        }
        return extent;
    }

    std::mt19937& m_random;
    bool m_isUniform;
    __int64 m_grainSizeSectors;
    bool m_compressed;
};

} // namespace

__int64 ForeignDisk::sizeBytes() const {
    return startSector(extents.size()) * kForeignSectorBytes;
}

__int64 ForeignDisk::grainSizeBytes() const {
    return extents.front().grainSizeSectors * kForeignSectorBytes;
}

bool ForeignDisk::isCompressed() const {
    return extents.front().compressed;
}

__int64 ForeignDisk::startSector(std::size_t extent) const {
    return std::accumulate(
        extents.begin(), extents.begin() + static_cast<std::ptrdiff_t>(extent), __int64{0},
        [](__int64 sum, ForeignExtent const& each) { return sum + each.sizeSectors; });
}

__int64 ForeignDisk::startGrainIndex(std::size_t extent) const {
    return roundedUp(startSector(extent), extents.front().grainSizeSectors);
}

bool ForeignDisk::isRegular() const {
    ForeignExtent const& first = extents.front();
    for (ForeignExtent const& extent : extents) {
        bool const isLast = &extent == &extents.back();
        if (extent.grainSizeSectors != first.grainSizeSectors ||
            extent.compressed != first.compressed ||
            (!isLast && extent.sizeSectors % first.grainSizeSectors != 0))
            return false;
    }
    return true;
}

std::string ForeignDisk::extentName(std::size_t extent) const {
    if (embedded)
        return name;
    std::ostringstream result;
    result << name.substr(0, name.rfind('.')) << "-s" << std::setw(5) << std::setfill('0') << extent
           << ".vmdk";
    return result.str();
}

std::ostream& operator<<(std::ostream& stream, ForeignDisk const& disk) {
    stream << disk.name << (disk.embedded ? ", embedded" : "")
           << (disk.password.empty() ? "" : ", encrypted") << ":";
    for (ForeignExtent const& extent : disk.extents) {
        stream << " [" << extent.sizeSectors << " sectors, grains of " << extent.grainSizeSectors
               << (extent.compressed ? ", compressed" : "")
               << (extent.hasRoundedCapacity ? ", rounded capacity" : "")
               << (extent.onDemand ? ", on demand" : "") << "]";
    }
    return stream;
}

void makeForeignDisk(yx::IFileSystem& files, yx::CURI const& folder, ForeignDisk const& disk,
                     std::string const& parentName, std::string const& password) {
    kelm::CVMDKDescriptor descriptor;
    descriptor.addGenericLine("# Disk DescriptorFile", true);
    descriptor.setVersion(1);
    descriptor.setEncodingUTF8();
    descriptor.setContentID(0x12345678);
    descriptor.setParentContentID(kNoForeignParentID);
    if (!parentName.empty()) {
        descriptor.setParentFileNameHint(text(parentName));
        descriptor.setParentContentID(contentIDOf(files, folder << text(parentName), password));
    }
    descriptor.setCreateType(createTypeOf(disk));
    if (std::any_of(disk.extents.begin(), disk.extents.end(),
                    [](ForeignExtent const& extent) { return extent.onDemand; }))
        descriptor.setYxCreateExtentFilesOnDemand(true);
    Buffer keyHash;
    if (!disk.password.empty())
        keyHash = addKey(descriptor, disk.password);
    for (std::size_t i = 0; i < disk.extents.size(); ++i) {
        descriptor.addExtentEntry(
            yx::makeObject<kelm::CVMDKExtentInfo>("RW", disk.extents[i].sizeSectors, "SPARSE",
                                                  text(disk.extentName(i)), -1)
                .get());
    }
    for (std::size_t i = 0; i < disk.extents.size(); ++i) {
        if (!disk.extents[i].onDemand)
            makeExtent(files, folder << text(disk.extentName(i)), disk.extents[i],
                       disk.embedded ? &descriptor : nullptr, keyHash);
    }
    if (!disk.embedded) {
        yx::P<yx::IIOStream> const stream =
            kelm::openVMDKFileStream(&files, folder << text(disk.name), yx::IIOStream::ReadWrite);
        descriptor.store(*stream, static_cast<int>(kDescriptorSectors * kForeignSectorBytes),
                         toBuffer(zeros(65536)));
        stream->close();
    }
}

std::vector<ForeignDisk> drawForeignChain(std::mt19937& random) {
    return ChainDrawer(random).draw();
}

} // namespace test_support
