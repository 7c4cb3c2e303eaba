#pragma once

#include <bit>

#include "kelm/format/internal/little_endian.h"
#include "kelm/format/internal/uri_props.h"
#include "yx/buffer.h"

namespace kelm {

// How grain tables and directories travel between memory and file: runs of little-endian numbers
// that begin at a sector.

/// Metadata up to this size may be larger than the file that it is said to lie in, since tables can
/// share sectors (a directory entry of 0 means sector 0). Beyond it the file must have room for all
/// of it, so that memory and time stay in proportion to the file.
constexpr __int64 kUncheckedMetadataSizeBytes = 4LL << 20;

/// Throws `yx::CIOError` `CorruptData`: "Invalid <field> in VMDK sparse extent: <value>" with
/// "uri".
[[noreturn]] void throwCorruptField(yx::IStreamBase& stream, char const* field, __int64 value);

/// Whether metadata of this size can be in the stream; see `kUncheckedMetadataSizeBytes`.
bool isMetadataSizePlausible(yx::IStreamBase& stream, __int64 sizeBytes);

/// Seeks to a sector. A position that no file can have is reported as `field`.
void seekToSector(yx::IStreamBase& stream, __int64 posSectors, char const* field);

namespace detail {

/// Between the file's byte order and the machine's, either way.
template <class T>
void convertByteOrder(yx::TBuffer<T>& numbers) {
    if constexpr (std::endian::native == std::endian::big) {
        for (int i = 0; i < numbers.getUsed(); ++i) {
            T& number = numbers.getData()[i];
            number = loadLittleEndian<T>(reinterpret_cast<unsigned char const*>(&number));
        }
    }
}

} // namespace detail

/// Sizes `numbers` to `count`, at most `INT_MAX` bytes, and reads them from a sector on.
template <class T>
void readNumbers(yx::IInStream& stream, __int64 posSectors, char const* field,
                 yx::TBuffer<T>& numbers, int count) {
    numbers.setUsed(count);
    seekToSector(stream, posSectors, field);
    stream.read(numbers.getData(), count * static_cast<int>(sizeof(T)));
    detail::convertByteOrder(numbers);
}

/// Writes all of `numbers` from a sector on.
template <class T>
void writeNumbers(yx::IOutStream& stream, __int64 posSectors, char const* field,
                  yx::TBuffer<T> const& numbers) {
    seekToSector(stream, posSectors, field);
    int const sizeBytes = numbers.getUsed() * static_cast<int>(sizeof(T));
    if constexpr (std::endian::native == std::endian::big) {
        yx::TBuffer<T> converted(numbers);
        detail::convertByteOrder(converted);
        stream.write(converted.getData(), sizeBytes, nullptr);
    } else {
        stream.write(numbers.getData(), sizeBytes, nullptr);
    }
}

} // namespace kelm
