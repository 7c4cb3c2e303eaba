#pragma once

#include <ostream>

#include <gtest/gtest.h>

#include "kelm/graindata/grain.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/fake_data_provider.h"
#include "tests/support/fake_grain_allocator.h"
#include "tests/support/grain_contents.h"
#include "tests/support/scripted_stream.h"

namespace graindata_test {

using test_support::Buffer;
using test_support::Bytes;
using test_support::concat;
using test_support::encipherRecord;
using test_support::FakeDataProvider;
using test_support::FakeGrainAllocator;
using test_support::littleEndian;
using test_support::makeRecord;
using test_support::padded;
using test_support::pattern;
using test_support::Props;
using test_support::Record;
using test_support::reportsCorruptData;
using test_support::sameBytes;
using test_support::ScriptedStream;
using test_support::slice;
using test_support::sparse;
using test_support::takeApart;
using test_support::textPattern;
using test_support::throwsError;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::toBuffer;
using test_support::toBytes;
using test_support::zeros;

using Operation = ScriptedStream::Operation;
using Operations = std::vector<Operation>;
using Allocation = FakeGrainAllocator::Allocation;
using Allocations = std::vector<Allocation>;
using Request = FakeDataProvider::Request;
using Requests = std::vector<Request>;

constexpr int kGrainSizeSectors = 8;
constexpr int kGrainSizeBytes = 4096;

/// Grains of the extent under test lie so many grains into the disk.
constexpr int kStartGrainIndex = 10;

/// The first sector that the allocator gives away.
constexpr int kFirstFreeSector = 16;

/// A kind of extent.
struct Kind {
    bool compressed;
    bool enciphered;
};

inline constexpr Kind kPlain{false, false};
inline constexpr Kind kEnciphered{false, true};
inline constexpr Kind kCompressed{true, false};
inline constexpr Kind kCompressedAndEnciphered{true, true};
inline constexpr Kind kAllKinds[] = {kPlain, kEnciphered, kCompressed, kCompressedAndEnciphered};

inline std::ostream& operator<<(std::ostream& stream, Kind const& kind) {
    return stream << (kind.compressed ? "compressed" : "uncompressed")
                  << (kind.enciphered ? ", enciphered" : "");
}

/// A stream that records which writes promised to keep their buffer, and can also fail in a seek.
class GrainStream : public ScriptedStream {
public:
    int getKeepCount() const { return m_keepCount; }

    /// Asked before each seek; true makes it fail like the other operations. Empty for none.
    void setSeekFault(std::function<bool()> fault) { m_seekFault = std::move(fault); }

    void seek(__int64 position) override {
        if (m_seekFault && m_seekFault())
            fail();
        ScriptedStream::seek(position);
    }

    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        ++m_keepCount;
        ScriptedStream::writeKeepBuffer(slice, barrier);
    }

private:
    int m_keepCount = 0;
    std::function<bool()> m_seekFault;
};

/// One grain over a file in memory, with all its neighbours under the test's control.
class GrainTest : public testing::Test {
protected:
    yx::P<kelm::CVMDKGrain> makeGrain(Kind kind,
                                      yx::IIOStream::Access access = yx::IIOStream::ReadWrite,
                                      int level = 6) {
        return yx::makeObject<kelm::CVMDKGrain>(
            stream.get(), access, kGrainSizeSectors, allocator.get(), kind.compressed, level,
            provider.get(), kind.enciphered ? cipher.get() : nullptr, cryptKey(), toBuffer(iv));
    }

    /// Stands on a grain of the extent where the allocator's table says.
    void openGrain(kelm::CVMDKGrain& grain, __int64 index = 0) {
        // What the grain has to store may move it.
        grain.flushChangesToStream();
        auto const slot = allocator->slotOf(index);
        grain.open(index, index + kStartGrainIndex, slot.posSectors, slot.sizeSectors);
    }

    /// Puts a grain into the file as other software would, in a slot of its own.
    void putGrain(Kind kind, Bytes const& plain, __int64 index = 0, __int64 spareSectors = 0) {
        Bytes const stored = storedForm(kind, plain, index + kStartGrainIndex);
        auto const sizeSectors = static_cast<__int64>(stored.size() + 511) / 512 + spareSectors;
        yx::TBuffer<unsigned char> const data = toBuffer(stored);
        allocator->allocNewGrain(index, data.getData(), data.getUsed(),
                                 static_cast<int>(sizeSectors));
        stream->operations().clear();
        allocator->allocations().clear();
    }

    /// What a file holds for a grain.
    Bytes storedForm(Kind kind, Bytes const& plain, __int64 diskGrainIndex) const {
        Bytes const prepared = preparedForm(kind, plain, diskGrainIndex);
        if (!kind.enciphered)
            return prepared;
        if (kind.compressed)
            return encipherRecord(prepared, key, ivOf(diskGrainIndex));
        return test_support::encipherWithOpenSSL(prepared, key, ivOf(diskGrainIndex));
    }

    Bytes preparedForm(Kind kind, Bytes const& plain, __int64 diskGrainIndex) const {
        if (!kind.compressed)
            return plain;
        return makeRecord(static_cast<unsigned long long>(diskGrainIndex * kGrainSizeSectors),
                          test_support::compressWithZlib(plain, 6));
    }

    /// The plain bytes of a grain in the file, unpacked by other software; empty without a slot.
    Bytes plainInFile(Kind kind, __int64 index = 0) const {
        auto const slot = allocator->slotOf(index);
        if (slot.posSectors == 0)
            return {};
        Bytes stored = slice(stream->content(), static_cast<std::size_t>(slot.posSectors) * 512,
                             static_cast<std::size_t>(slot.sizeSectors) * 512);
        Bytes const grainIV = ivOf(index + kStartGrainIndex);
        if (!kind.compressed) {
            stored.resize(kGrainSizeBytes);
            return kind.enciphered ? test_support::decipherWithOpenSSL(stored, key, grainIV)
                                   : stored;
        }
        Bytes const header = slice(stored, 0, 12);
        Bytes data = slice(stored, 12, stored.size());
        if (kind.enciphered) {
            data.resize(data.size() / 16 * 16);
            data = test_support::decipherWithOpenSSL(data, key, grainIV);
        }
        return takeApart(concat({header, data}), kGrainSizeBytes).plain;
    }

    /// The IV of a grain: the index, low byte first, over the first and the last eight bytes.
    Bytes ivOf(__int64 diskGrainIndex) const {
        Bytes const index = littleEndian(static_cast<unsigned long long>(diskGrainIndex), 8);
        Bytes grainIV = iv;
        for (std::size_t i = 0; i < 8; ++i) {
            grainIV[i] ^= index[i];
            grainIV[i + 8] ^= index[i];
        }
        return grainIV;
    }

    yx::TCryptBuffer<unsigned char> cryptKey() const {
        yx::TCryptBuffer<unsigned char> buffer;
        buffer.assign(toBuffer(key));
        return buffer;
    }

    static Bytes read(kelm::CVMDKGrain& grain, int sizeBytes) {
        Bytes target(static_cast<std::size_t>(sizeBytes), 0xEE);
        grain.read(target.data(), sizeBytes);
        return target;
    }

    static Bytes readAll(kelm::CVMDKGrain& grain) {
        grain.seek(0);
        return read(grain, kGrainSizeBytes);
    }

    static Bytes readPrepared(kelm::CVMDKGrain& grain) {
        Buffer target = toBuffer(Bytes(3, 0xEE));
        grain.readPreparedGrainData(target);
        return toBytes(target);
    }

    static void write(kelm::CVMDKGrain& grain, Bytes const& bytes) {
        grain.write(bytes.data(), static_cast<int>(bytes.size()));
    }

    Operations reads() const { return stream->operationsOf(ScriptedStream::Kind::Read); }
    Operations writes() const { return stream->operationsOf(ScriptedStream::Kind::Write); }

    static Operation readOf(long long position, long long sizeBytes) {
        return {ScriptedStream::Kind::Read, position, sizeBytes};
    }
    static Operation writeOf(long long position, long long sizeBytes) {
        return {ScriptedStream::Kind::Write, position, sizeBytes};
    }

    Bytes const key = pattern(32, 901);
    Bytes const iv = pattern(16, 902);
    yx::P<krym::ICipher> cipher = yx::makeObject<krym::CCipher_AES256CBC>();
    yx::P<GrainStream> stream = yx::makeObject<GrainStream>();
    yx::P<FakeGrainAllocator> allocator =
        yx::makeObject<FakeGrainAllocator>(stream.get(), kFirstFreeSector);
    /// Null at first.
    yx::P<FakeDataProvider> provider;
};

} // namespace graindata_test
