#pragma once

#include <ostream>

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/extent/on_demand_extent_file.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/extent_checker.h"
#include "tests/support/fake_data_provider.h"
#include "tests/support/grain_contents.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"
#include "yx/memory_file_system.h"

namespace extent_test {

using test_support::Buffer;
using test_support::Bytes;
using test_support::concat;
using test_support::FakeDataProvider;
using test_support::fromText;
using test_support::pattern;
using test_support::Props;
using test_support::sameBytes;
using test_support::slice;
using test_support::throwsError;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::toBuffer;
using test_support::toBytes;
using test_support::zeros;

using yx::IIOStream;

inline constexpr char kExtentURI[] = "mem:/d/extent.vmdk";
inline constexpr char kMainURI[] = "mem:/d/disk.vmdk";

/// The extents of most tests: 16 grains of 8 sectors, from grain 10 of their disk on.
inline constexpr __int64 kGrainSizeSectors = 8;
inline constexpr __int64 kGrainSizeBytes = 4096;
inline constexpr __int64 kGrainCount = 16;
inline constexpr __int64 kCapacityBytes = kGrainCount * kGrainSizeBytes;
inline constexpr __int64 kStartGrainIndex = 10;

/// Offsets in the header record.
enum HeaderOffset : std::size_t {
    kVersionOffset = 4,
    kFlagsOffset = 8,
    kCapacityOffset = 12,
    kGrainSizeOffset = 20,
    kEntryCountOffset = 44,
    kRedundantDirectoryOffset = 48,
    kDirectoryOffset = 56,
    kOverheadOffset = 64,
    kUncleanOffset = 72,
    kNewLineOffset = 73,
    kEncryptionAlgorithmOffset = 79,
    kKeyHashAlgorithmOffset = 81,
    kKeyHashSizeOffset = 83,
};

/// A kind of extent file.
struct Kind {
    char const* name;
    bool compressed;
    bool enciphered;
};

inline constexpr Kind kPlain{"plain", false, false};
inline constexpr Kind kEnciphered{"enciphered", false, true};
inline constexpr Kind kCompressed{"compressed", true, false};
inline constexpr Kind kCompressedAndEnciphered{"compressed and enciphered", true, true};
inline constexpr Kind kAllKinds[] = {kPlain, kEnciphered, kCompressed, kCompressedAndEnciphered};

inline std::ostream& operator<<(std::ostream& stream, Kind const& kind) {
    return stream << kind.name;
}

/// Writes a little-endian number into bytes.
inline void put(Bytes& bytes, std::size_t offset, unsigned long long value, std::size_t sizeBytes) {
    for (std::size_t i = 0; i < sizeBytes; ++i)
        bytes.at(offset + i) = static_cast<unsigned char>(value >> (8 * i));
}

inline Bytes keyBytes() {
    return pattern(32, 77);
}

inline Bytes keyHash() {
    Bytes hash(SHA256_DIGEST_LENGTH);
    SHA256(keyBytes().data(), keyBytes().size(), hash.data());
    return hash;
}

inline yx::TCryptBuffer<unsigned char> cryptBuffer(Bytes const& bytes) {
    yx::TCryptBuffer<unsigned char> buffer(static_cast<int>(bytes.size()), -1);
    yx::copyMemory(buffer.getData(), bytes.data(), bytes.size());
    return buffer;
}

/// How an extent is opened.
struct Opening {
    IIOStream::Access access = IIOStream::ReadWrite;
    kelm::IVMDKDataProvider* provider = nullptr;
    kelm::CVMDKGrainTableCache* cache = nullptr;

    /// Without the buffering layer, so that each operation of the extent reaches the file system.
    bool bare = false;
    __int64 startGrainIndex = kStartGrainIndex;

    /// Stands before the fixture's own file system.
    yx::IFileSystem* through = nullptr;
};

/// Extent files in memory, seen through a file system that records what happens.
class ExtentTest : public testing::Test {
protected:
    ExtentTest() { updater->setContentIDUpdatesEnabled(false); }

    /// Makes an empty extent, in place of what is there.
    void createExtent(Kind const& kind, __int64 grainCount = kGrainCount,
                      __int64 grainSizeSectors = kGrainSizeSectors) {
        memory->deleteFile(uri, true);
        kelm::createEmptyVMDKSparseExtentFile(memory.get(), uri, kind.compressed, grainCount,
                                              grainSizeSectors, toBuffer(zeros(65536)), nullptr, 0,
                                              kind.enciphered ? toBuffer(keyHash()) : Buffer());
    }

    yx::P<IIOStream> openStream(Opening const& opening) {
        yx::IFileSystem* const fileSystem = opening.through ? opening.through : files.get();
        if (!opening.bare)
            return kelm::openVMDKFileStream(fileSystem, uri, opening.access);
        unsigned int reserved = 0;
        return fileSystem->openFile(uri, opening.access, &reserved);
    }

    yx::P<kelm::CVMDKSparseExtentFile> openExtent(Kind const& kind, Opening const& opening = {}) {
        yx::P<kelm::CVMDKGrainTableCache> const cache =
            opening.cache ? yx::P<kelm::CVMDKGrainTableCache>(opening.cache)
                          : yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
        return yx::makeObject<kelm::CVMDKSparseExtentFile>(
            openStream(opening).get(), opening.access, opening.startGrainIndex, 6, cache.get(),
            opening.provider, updater.get(), kind.enciphered ? cipher.get() : nullptr,
            cryptBuffer(kind.enciphered ? keyBytes() : Bytes()),
            toBuffer(kind.enciphered ? iv : Bytes()));
    }

    /// A grain of the extent in prepared form, as another program makes it.
    static Bytes preparedForm(Kind const& kind, Bytes const& plain, __int64 grainIndex) {
        if (!kind.compressed)
            return plain;
        return test_support::makeRecord(
            static_cast<unsigned long long>((grainIndex + kStartGrainIndex) * kGrainSizeSectors),
            test_support::compressWithZlib(plain, 6));
    }

    Bytes content() { return toBytes(memory->getFile(uri)); }
    void setContent(Bytes const& bytes) { memory->putFile(uri, toBuffer(bytes)); }

    /// Changes a header field; in a compressed file in the footer too, so that the trail is one.
    void setHeaderField(std::size_t offset, unsigned long long value, std::size_t sizeBytes) {
        Bytes bytes = content();
        bool const hasFooter = (bytes.at(kFlagsOffset + 2) & 1) != 0;
        put(bytes, offset, value, sizeBytes);
        if (hasFooter)
            put(bytes, bytes.size() - 1024 + offset, value, sizeBytes);
        setContent(bytes);
    }

    static void writeAt(kelm::IVMDKExtentFile& extent, __int64 position, Bytes const& bytes) {
        extent.seek(position);
        extent.write(bytes.data(), static_cast<int>(bytes.size()));
    }

    static Bytes read(kelm::IVMDKExtentFile& extent, __int64 sizeBytes) {
        Bytes bytes(static_cast<std::size_t>(sizeBytes), 0xEE);
        extent.read(bytes.data(), static_cast<int>(sizeBytes));
        return bytes;
    }

    static Bytes readAt(kelm::IVMDKExtentFile& extent, __int64 position, __int64 sizeBytes) {
        extent.seek(position);
        return read(extent, sizeBytes);
    }

    /// The findings of the checker on the file as it is.
    std::string findings(__int64 startGrainIndex = kStartGrainIndex) {
        return test_support::checkExtent(memory->getFile(uri),
                                         static_cast<std::uint64_t>(startGrainIndex))
            .text();
    }

    yx::CURI const uri{kExtentURI};
    yx::P<yx::CMemoryFileSystem> memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<test_support::RecordingFileSystem> files =
        yx::makeObject<test_support::RecordingFileSystem>(memory.get());
    yx::P<FakeDataProvider> provider = yx::makeObject<FakeDataProvider>();
    yx::P<krym::ICipher> cipher = yx::makeObject<krym::CCipher_AES256CBC>();
    Bytes iv = pattern(16, 78);

    /// Allows changes and leaves the content ID alone.
    yx::P<kelm::CVMDKContentIDUpdater> updater =
        yx::makeObject<kelm::CVMDKContentIDUpdater>(memory.get(), yx::CURI(kMainURI), nullptr);
};

} // namespace extent_test
