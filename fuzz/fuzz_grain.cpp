// The records of grains. The input is a byte that chooses the kind of extent, one for the size of
// its grains, one for the grain's index, one for what to do, and then either what the file holds
// for the grain or what is to be stored.

#include <algorithm>
#include <cstring>

#include "fuzz/support/harness.h"
#include "kelm/format/constants.h"
#include "kelm/graindata/grain.h"
#include "yx/buffer_stream.h"

namespace {

using namespace kelm;
using kelm::fuzz::attempt;
using kelm::fuzz::Bytes;
using kelm::fuzz::Input;
using kelm::fuzz::require;
using Buffer = yx::TBuffer<unsigned char>;

constexpr unsigned int kCompressedBit = 1;
constexpr unsigned int kEncipheredBit = 2;
constexpr unsigned int kStoreBit = 1;
constexpr unsigned int kPreparedBit = 2;

constexpr unsigned int kMaxGrainSizeSectors = 32;

/// The sector at which the file has its grain.
constexpr int kPosSectors = 1;

/// Puts every grain at the end of the file.
class Allocator : public yx::CBase, public virtual IVMDKGrainAllocator {
public:
    explicit Allocator(yx::IIOStream* stream) : m_stream(stream) {}

    __int64 getPosSectors() const { return m_posSectors; }
    __int64 getSlotSizeSectors() const { return m_slotSizeSectors; }

    void flushChangesToStream() override {}

    __int64 allocNewGrain(__int64, void const* data, int size, int slotSizeSectors) override {
        m_posSectors = (m_stream->getLength() + kSectorSizeBytes - 1) / kSectorSizeBytes;
        m_slotSizeSectors = slotSizeSectors;
        m_stream->seek(m_posSectors * kSectorSizeBytes);
        m_stream->write(data, size, nullptr);
        m_stream->setLength((m_posSectors + slotSizeSectors) * kSectorSizeBytes);
        return m_posSectors;
    }

    __int64 allocNewGrainKeepBuffer(__int64 grainIndex,
                                    yx::TConstBufferSlice<unsigned char> const& data,
                                    int slotSizeSectors) override {
        return allocNewGrain(grainIndex, data.getData(), data.getLength(), slotSizeSectors);
    }

private:
    yx::P<yx::IIOStream> m_stream;
    __int64 m_posSectors = 0;
    __int64 m_slotSizeSectors = 0;
};

/// One grain and the file that holds it.
class GrainInFile {
public:
    explicit GrainInFile(Input& input) {
        unsigned int const kind = input.takeByte();
        m_compressed = (kind & kCompressedBit) != 0;
        bool const enciphered = (kind & kEncipheredBit) != 0;
        m_grainSizeSectors = input.takeByte() % kMaxGrainSizeSectors + 1;
        m_grainIndex = input.takeByte();
        if (enciphered)
            m_cipher = yx::makeObject<krym::CCipher_AES256CBC>();
        fillWithSteps(m_key, 32);
        fillWithSteps(m_iv, 16);
        m_file.setUsed(kPosSectors * kSectorSizeBytes);
        yx::initMemory(m_file.getData(), 0, static_cast<std::size_t>(m_file.getUsed()));
    }

    /// Reads a grain whose place in the file holds `content`, in both forms.
    void readBack(Bytes content) {
        m_stream->seek(__int64{kPosSectors} * kSectorSizeBytes);
        m_stream->write(content.data(), static_cast<int>(content.size()), nullptr);

        Buffer plain;
        bool const isRead = attempt([&] { plain = readPlain(kPosSectors, m_grainSizeSectors); });
        Buffer prepared;
        bool const isPreparedRead =
            attempt([&] { prepared = readPrepared(kPosSectors, m_grainSizeSectors); });
        if (isRead)
            require(isPreparedRead, "a grain that can be read can be read in prepared form");
        if (!isPreparedRead)
            return;
        bool const unpacks = attempt([&] { m_unpacked = unprepare(prepared); });
        require(unpacks == isRead && (!isRead || isSame(m_unpacked, plain)),
                "both forms of a grain stand for the same bytes");
    }

    /// Stores `content`, plain or prepared, and reads it back.
    void storeAndRead(Bytes content, bool asPrepared) {
        Buffer plain = fuzz::toBuffer(
            content.first(std::min(content.size(), static_cast<std::size_t>(grainSizeBytes()))));
        yx::P<CVMDKGrain> const grain = makeGrain(yx::IIOStream::ReadWrite);
        grain->open(0, m_grainIndex, 0, 0);
        if (asPrepared) {
            Buffer aux;
            yx::P<Buffer> const prepared =
                grain->createDataPreparer()->prepareGrainData(&plain, m_grainIndex, &aux);
            // Prepared data of no bytes are refused.
            if (prepared->getUsed() == 0)
                return;
            grain->writePreparedGrainData(*prepared);
        } else if (plain.getUsed() > 0) {
            grain->write(plain.getData(), plain.getUsed());
            grain->flushChangesToStream();
        }
        int const contentBytes = plain.getUsed();
        plain.setUsed(grainSizeBytes());
        yx::initMemory(plain.getData() + contentBytes, 0,
                       static_cast<std::size_t>(grainSizeBytes() - contentBytes));
        if (m_allocator->getPosSectors() == 0) {
            require(!asPrepared, "a grain that is stored in prepared form has a place");
            require(yx::isAllZero(plain.getData(), static_cast<std::size_t>(grainSizeBytes())),
                    "a grain of other than zeros has a place");
            return;
        }
        require(isSame(readPlain(m_allocator->getPosSectors(), m_allocator->getSlotSizeSectors()),
                       plain),
                "a grain reads as what was stored");
    }

private:
    static void fillWithSteps(Buffer& buffer, int sizeBytes) {
        buffer.setUsed(sizeBytes);
        for (int i = 0; i < sizeBytes; ++i)
            buffer.getData()[i] = static_cast<unsigned char>(i * 7 + 1);
    }

    static bool isSame(Buffer const& left, Buffer const& right) {
        return left.getUsed() == right.getUsed() &&
               std::memcmp(left.getData(), right.getData(),
                           static_cast<std::size_t>(left.getUsed())) == 0;
    }

    int grainSizeBytes() const { return m_grainSizeSectors * kSectorSizeBytes; }

    yx::P<CVMDKGrain> makeGrain(yx::IIOStream::Access access) {
        return yx::makeObject<CVMDKGrain>(m_stream.get(), access, m_grainSizeSectors,
                                          m_allocator.get(), m_compressed, 1, nullptr,
                                          m_cipher.get(), m_key, m_iv);
    }

    yx::P<CVMDKGrain> openForReading(__int64 posSectors, __int64 slotSizeSectors) {
        yx::P<CVMDKGrain> grain = makeGrain(yx::IIOStream::ReadOnly);
        grain->open(0, m_grainIndex, posSectors, slotSizeSectors);
        return grain;
    }

    Buffer readPlain(__int64 posSectors, __int64 slotSizeSectors) {
        Buffer plain(grainSizeBytes(), -1);
        openForReading(posSectors, slotSizeSectors)->read(plain.getData(), plain.getUsed());
        return plain;
    }

    Buffer readPrepared(__int64 posSectors, __int64 slotSizeSectors) {
        Buffer prepared;
        openForReading(posSectors, slotSizeSectors)->readPreparedGrainData(prepared);
        return prepared;
    }

    Buffer unprepare(Buffer& prepared) {
        CVMDKDataPreparer preparer(m_grainSizeSectors, m_compressed, 1);
        Buffer aux;
        return *preparer.unprepareGrainData(&prepared, &aux);
    }

    bool m_compressed;
    int m_grainSizeSectors;
    __int64 m_grainIndex;
    yx::P<krym::ICipher> m_cipher;
    yx::TCryptBuffer<unsigned char> m_key;
    Buffer m_iv;
    Buffer m_file;
    Buffer m_unpacked;
    yx::P<yx::IIOStream> m_stream = yx::makeObject<yx::CBufferStream>(&m_file, 2.0);
    yx::P<Allocator> m_allocator = yx::makeObject<Allocator>(m_stream.get());
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    Input input(data, size);
    GrainInFile grain(input);
    unsigned int const task = input.takeByte();
    if ((task & kStoreBit) != 0)
        grain.storeAndRead(input.takeAll(), (task & kPreparedBit) != 0);
    else
        grain.readBack(input.takeAll());
    return 0;
}
