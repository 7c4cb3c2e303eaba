#include "host/transfer/direct_reading.h"

#include <algorithm>
#include <cassert>
#include <cerrno>

#include <unistd.h>

#include "host/disk/chain_members.h"
#include "kelm/format/internal/rounding.h"
#include "kelm/graindata/internal/grain_record.h"

namespace kelm::host {

namespace {

constexpr __int64 kSlotsBytes = __int64{8} << 20;
constexpr __int64 kMaxSlots = 128;

/// Of larger grains too few could stay for several readers.
constexpr __int64 kMaxCodedGrainBytes = kSlotsBytes / 8;

/// As the library: more is treated as damage.
constexpr __int64 kMaxRecordGrains = 2;

/// The number of bytes read, fewer than `bytes` only at the end of the file; -1 for an error of the
/// operating system. Those of a store are thrown.
__int64 readFileAt(MappedExtent const& extent, __int64 positionBytes, unsigned char* target,
                   __int64 bytes) {
    if (extent.placeReader)
        return extent.placeReader->readPlace(positionBytes, target, static_cast<int>(bytes));
    int const file = extent.fileDescriptor;
    __int64 done = 0;
    while (done < bytes) {
        ssize_t const count = ::pread(file, target + done, static_cast<std::size_t>(bytes - done),
                                      positionBytes + done);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return -1;
        if (count == 0)
            break;
        done += count;
    }
    return done;
}

std::vector<yx::P<CVMDKDisk>> openLevels(CVMDKDisk& disk) {
    std::vector<yx::P<CVMDKDisk>> levels;
    for (yx::P<CVMDKDisk> level(&disk); level; level = level->getParentDisk())
        levels.push_back(level);
    return levels;
}

} // namespace

struct DirectReading::Coder {
    explicit Coder(__int64 grainSizeBytes, std::size_t levels)
        : preparer(yx::makeObject<CVMDKDataPreparer>(grainSizeBytes / kSectorSizeBytes, true, -1)),
          ciphers(levels) {}

    yx::P<CVMDKDataPreparer> preparer;

    /// One for each encrypted level that was needed.
    std::vector<yx::P<CVMDKGrainCipher>> ciphers;

    /// A grain as the file holds it, deciphered, and plain.
    yx::TBuffer<unsigned char> stored;
    yx::TBuffer<unsigned char> deciphered;
    yx::TBuffer<unsigned char> plain;
};

DirectReading::DirectReading(std::unique_ptr<SafeDisk> disk, int maxMapTables)
    : m_disk(std::move(disk)) {
    try {
        m_levels = openLevels(m_disk->getDisk());
        m_map = ChainMap::tryMake(m_disk->getFileSystem(), listChainMembers(*m_disk), maxMapTables);
    } catch (yx::CError const& error) {
        // Who reads in the usual way meets it too.
        error.nop();
    }
    if (!m_map || static_cast<std::size_t>(m_map->getLevelCount()) != m_levels.size()) {
        m_map.reset();
        return;
    }
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    if (grainSizeBytes <= kMaxCodedGrainBytes) {
        m_slots = std::vector<Slot>(
            static_cast<std::size_t>(std::min(kMaxSlots, kSlotsBytes / grainSizeBytes)));
    }
}

DirectReading::~DirectReading() = default;

std::optional<bool> DirectReading::isGrainWritten(__int64 grainIndex) {
    std::optional<MappedGrain> const grain = m_map ? m_map->find(grainIndex) : std::nullopt;
    return grain ? std::optional<bool>(grain->isHeld()) : std::nullopt;
}

bool DirectReading::tryRead(__int64 positionBytes, void* buffer, int bytes) {
    bool const isInDisk =
        m_map && bytes >= 0 && positionBytes >= 0 && positionBytes <= m_map->getSizeBytes() - bytes;
    if (!isInDisk)
        return false;
    try {
        return tryReadInMap(positionBytes, static_cast<unsigned char*>(buffer), bytes);
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

bool DirectReading::tryReadInMap(__int64 positionBytes, unsigned char* target, __int64 bytes) {
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    while (bytes > 0) {
        std::optional<MappedGrain> const grain = m_map->find(positionBytes / grainSizeBytes);
        if (!grain || (grain->isHeld() && !grain->extent->canReadPlaces()))
            return false;
        __int64 partBytes = std::min(bytes, grainSizeBytes - positionBytes % grainSizeBytes);
        if (!grain->isHeld()) {
            std::fill_n(target, partBytes, static_cast<unsigned char>(0));
        } else if (!grain->extent->isCompressed && !grain->extent->isEncrypted) {
            partBytes = readPlain(*grain, positionBytes, target, bytes);
            if (partBytes == 0)
                return false;
        } else if (!readCoded(*grain, positionBytes, target, static_cast<int>(partBytes))) {
            return false;
        }
        positionBytes += partBytes;
        target += partBytes;
        bytes -= partBytes;
    }
    return true;
}

/// Reads what is asked for of a grain and of those behind it that lie behind it in the file too.
/// Returns the number of bytes, 0 if it failed.
__int64 DirectReading::readPlain(MappedGrain const& grain, __int64 positionBytes,
                                 unsigned char* target, __int64 bytes) {
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    __int64 const inGrain = positionBytes % grainSizeBytes;
    __int64 const startBytes = grain.posSectors * kSectorSizeBytes;
    __int64 endBytes = startBytes + grainSizeBytes;
    for (__int64 index = positionBytes / grainSizeBytes + 1;
         endBytes - startBytes - inGrain < bytes; ++index) {
        std::optional<MappedGrain> const next = m_map->find(index);
        if (!next || !next->isHeld() || next->extent != grain.extent ||
            next->posSectors * kSectorSizeBytes != endBytes)
            break;
        endBytes += grainSizeBytes;
    }
    // A grain that the file has not wholly is damaged.
    if (endBytes > grain.extent->fileBytes)
        return 0;
    __int64 const partBytes = std::min(bytes, endBytes - startBytes - inGrain);
    __int64 const count = readFileAt(*grain.extent, startBytes + inGrain, target, partBytes);
    return count == partBytes ? partBytes : 0;
}

bool DirectReading::readCoded(MappedGrain const& grain, __int64 positionBytes,
                              unsigned char* target, int bytes) {
    if (m_slots.empty())
        return false;
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    __int64 const grainIndex = positionBytes / grainSizeBytes;
    // Who decodes a grain keeps others that want it from decoding it too.
    Slot& slot = m_slots[static_cast<std::size_t>(grainIndex) % m_slots.size()];
    std::lock_guard const lock(slot.mutex);
    if (slot.grainIndex != grainIndex) {
        slot.grainIndex = -1;
        if (!decode(grain, grainIndex, slot.plain))
            return false;
        slot.grainIndex = grainIndex;
    }
    assert(slot.plain.getUsed() == grainSizeBytes);
    std::copy_n(slot.plain.getData() + positionBytes % grainSizeBytes, bytes, target);
    return true;
}

std::unique_ptr<DirectReading::Coder> DirectReading::takeCoder() {
    std::lock_guard const lock(m_codersMutex);
    if (m_coders.empty())
        return std::make_unique<Coder>(m_map->getGrainSizeBytes(), m_levels.size());
    std::unique_ptr<Coder> coder = std::move(m_coders.back());
    m_coders.pop_back();
    return coder;
}

bool DirectReading::decode(MappedGrain const& grain, __int64 grainIndex,
                           yx::TBuffer<unsigned char>& plain) {
    std::unique_ptr<Coder> coder = takeCoder();
    bool const isDecoded = decodeWith(*coder, grain, grainIndex);
    // The coder's buffers are in the processor's caches, where decoding is faster by more than a
    // copy takes.
    if (isDecoded)
        plain.assign(coder->plain);
    std::lock_guard const lock(m_codersMutex);
    m_coders.push_back(std::move(coder));
    return isDecoded;
}

bool DirectReading::decodeWith(Coder& coder, MappedGrain const& grain, __int64 grainIndex) {
    MappedExtent const& extent = *grain.extent;
    __int64 const grainSizeBytes = m_map->getGrainSizeBytes();
    bool const hasFormOfDisk =
        extent.isCompressed == m_levels[static_cast<std::size_t>(grain.level)]->getCompressed();
    if (extent.isEncrypted && !hasFormOfDisk)
        return false;
    __int64 const slotBytes =
        extent.isCompressed ? __int64{grain.slotSizeSectors} * kSectorSizeBytes : grainSizeBytes;
    if (slotBytes > (kMaxRecordGrains + 1) * grainSizeBytes)
        return false;
    coder.stored.setUsed(static_cast<int>(slotBytes));
    __int64 const storedBytes =
        readFileAt(extent, grain.posSectors * kSectorSizeBytes, coder.stored.getData(), slotBytes);
    if (!extent.isCompressed) {
        if (storedBytes != grainSizeBytes)
            return false;
        cipherOf(coder, grain).decipher(coder.stored, grainIndex, coder.plain);
        return coder.plain.getUsed() == grainSizeBytes;
    }
    if (storedBytes < kSectorSizeBytes)
        return false;
    __int64 const dataBytes = loadGrainRecordCompressedSize(coder.stored.getData());
    __int64 const recordBytes =
        roundUpToMultiple(dataBytes + kGrainRecordHeaderSizeBytes, __int64{kSectorSizeBytes});
    if (dataBytes > kMaxRecordGrains * grainSizeBytes || recordBytes > storedBytes)
        return false;
    // An enciphered one may take a sector more.
    coder.stored.setUsed(static_cast<int>(extent.isEncrypted ? storedBytes : recordBytes));
    if (extent.isEncrypted)
        cipherOf(coder, grain).decipher(coder.stored, grainIndex, coder.deciphered);
    coder.plain.setUsed(static_cast<int>(grainSizeBytes));
    coder.preparer->unprepareGrainDataTo(extent.isEncrypted ? &coder.deciphered : &coder.stored,
                                         coder.plain.getData());
    return true;
}

CVMDKGrainCipher& DirectReading::cipherOf(Coder& coder, MappedGrain const& grain) {
    auto const level = static_cast<std::size_t>(grain.level);
    yx::P<CVMDKGrainCipher>& cipher = coder.ciphers[level];
    if (!cipher)
        cipher = m_levels[level]->createGrainCipher();
    return *cipher;
}

} // namespace kelm::host
