#include "tests/support/foreign_disk_model.h"

#include <algorithm>

namespace test_support {

namespace {

constexpr __int64 kModelSectorBytes = 512;

} // namespace

ForeignDiskModel::ForeignDiskModel(ForeignDisk const& disk, std::optional<Bytes> below,
                                   ZeroGrains zeroGrains)
    : m_disk(disk), m_below(std::move(below)), m_zeroGrains(zeroGrains) {
    for (ForeignExtent const& extent : disk.extents) {
        m_extents.emplace_back(static_cast<std::size_t>(
            (extent.sizeSectors + extent.grainSizeSectors - 1) / extent.grainSizeSectors));
    }
}

std::size_t ForeignDiskModel::extentAt(__int64 position) const {
    std::size_t extent = 0;
    while (m_disk.startSector(extent + 1) * kModelSectorBytes <= position)
        ++extent;
    return extent;
}

__int64 ForeignDiskModel::bytesLeftInExtent(__int64 position) const {
    return m_disk.startSector(extentAt(position) + 1) * kModelSectorBytes - position;
}

std::size_t ForeignDiskModel::grainSizeBytes(std::size_t extent) const {
    return static_cast<std::size_t>(m_disk.extents[extent].grainSizeSectors * kModelSectorBytes);
}

ForeignDiskModel::Place ForeignDiskModel::placeOf(__int64 position) const {
    std::size_t const extent = extentAt(position);
    auto const relative =
        static_cast<std::size_t>(position - m_disk.startSector(extent) * kModelSectorBytes);
    std::size_t const grainBytes = grainSizeBytes(extent);
    std::size_t const offset = relative % grainBytes;
    return {extent, relative / grainBytes, offset,
            std::min(grainBytes - offset, static_cast<std::size_t>(bytesLeftInExtent(position)))};
}

Bytes ForeignDiskModel::below(Place const& place) const {
    std::size_t const grainBytes = grainSizeBytes(place.extent);
    if (!m_below)
        return zeros(grainBytes);
    auto const start = static_cast<std::size_t>(m_disk.startGrainIndex(place.extent));
    Bytes bytes = slice(*m_below, (start + place.grain) * grainBytes, grainBytes);
    bytes.resize(grainBytes);
    return bytes;
}

Bytes ForeignDiskModel::visible(Place const& place) const {
    Grain const& grain = m_extents[place.extent][place.grain];
    bool const isInMemory = m_isLoaded && m_current && m_current->extent == place.extent &&
                            m_current->grain == place.grain;
    return grain.isStored || isInMemory ? grain.bytes : below(place);
}

void ForeignDiskModel::enter(Place const& place) {
    if (m_current && m_current->extent == place.extent && m_current->grain == place.grain)
        return;
    reopen();
    m_current = place;
}

void ForeignDiskModel::enter(__int64 position) {
    enter(placeOf(position));
}

Bytes ForeignDiskModel::read(__int64 position, __int64 sizeBytes) {
    Bytes result;
    for (__int64 const end = position + sizeBytes; position < end;) {
        Place const place = placeOf(position);
        enter(place);
        Bytes const part =
            slice(visible(place), place.offset,
                  std::min(place.bytesLeft, static_cast<std::size_t>(end - position)));
        result.insert(result.end(), part.begin(), part.end());
        position += static_cast<__int64>(part.size());
    }
    return result;
}

void ForeignDiskModel::write(__int64 position, Bytes const& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        Place const place = placeOf(position + static_cast<__int64>(done));
        enter(place);
        std::size_t const step = std::min(place.bytesLeft, bytes.size() - done);
        Bytes content = visible(place);
        std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(done), step,
                    content.begin() + static_cast<std::ptrdiff_t>(place.offset));
        at(place).bytes = content;
        m_isLoaded = true;
        m_isDirty = true;
        done += step;
    }
}

void ForeignDiskModel::flush() {
    if (!m_isDirty)
        return;
    m_isDirty = false;
    Grain& grain = at(*m_current);
    bool const isZero = grain.bytes == zeros(grain.bytes.size());
    if (!isZero || m_zeroGrains == ZeroGrains::AreStored)
        grain.isStored = true;
}

void ForeignDiskModel::reopen() {
    flush();
    m_current.reset();
    m_isLoaded = false;
}

void ForeignDiskModel::writePrepared(__int64 position, Bytes const& plain) {
    enter(position);
    at(*m_current) = {plain, true};
    m_isLoaded = false;
    m_isDirty = false;
}

void ForeignDiskModel::makeIndependent(__int64 position) {
    enter(position);
    if (!at(*m_current).isStored)
        writePrepared(position, below(*m_current));
}

bool ForeignDiskModel::isStored(__int64 position) const {
    Place const place = placeOf(position);
    return m_extents[place.extent][place.grain].isStored;
}

bool ForeignDiskModel::isIndependent(__int64 position) {
    enter(position);
    return m_isDirty || isStored(position);
}

Bytes ForeignDiskModel::content() const {
    Bytes all;
    for (__int64 position = 0; position < m_disk.sizeBytes();) {
        Place const place = placeOf(position);
        Bytes const part = slice(visible(place), place.offset, place.bytesLeft);
        all.insert(all.end(), part.begin(), part.end());
        position += static_cast<__int64>(part.size());
    }
    return all;
}

} // namespace test_support
