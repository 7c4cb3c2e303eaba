// What a grain costs beyond its codec and its cipher: grains of 64 KiB at level 1, beside
// mzu::CMiniZCompressor and krym::CCipher_AES256CBC called directly in the same run.
//
//   bench_graindata [--rounds N]
//
// The direct side makes the same bytes and moves them between the same buffers and a file in
// memory; the grain additionally keeps the plain bytes in memory, which is one copy of 64 KiB for
// each read or write. Zeros are where that copy weighs most.

#include <cstring>
#include <string>
#include <vector>

#include "bench/arguments.h"
#include "bench/interleaved.h"
#include "bench/sample_content.h"
#include "compressors/compressors.h"
#include "kelm/graindata/data_preparer.h"
#include "kelm/graindata/grain.h"
#include "yx/buffer_stream.h"

namespace {

using Buffer = yx::TBuffer<unsigned char>;

constexpr int kGrainSizeSectors = 128;
constexpr int kGrainSizeBytes = 65536;
constexpr int kLevel = 1;
constexpr int kHeaderSizeBytes = 12;
constexpr int kFileSizeSectors = 300;
constexpr int kGrainPosSectors = 128;
constexpr int kSlotSizeSectors = 130;
/// Enough that the clock is read seldom.
constexpr int kGrainsPerRound = 8;
constexpr double kAim = 0.95;

struct Content {
    char const* name;
    Buffer bytes;
};

Buffer toBuffer(std::vector<unsigned char> const& bytes) {
    Buffer buffer(static_cast<int>(bytes.size()), -1);
    yx::copyMemory(buffer.getData(), bytes.data(), bytes.size());
    return buffer;
}

yx::TCryptBuffer<unsigned char> makeKey() {
    yx::TCryptBuffer<unsigned char> key(32, -1);
    yx::initMemory(key.getData(), 7, 32);
    return key;
}

Buffer makeIV() {
    Buffer iv(16, -1);
    yx::initMemory(iv.getData(), 9, 16);
    return iv;
}

/// Codec and cipher with nothing around them.
class Direct {
public:
    explicit Direct(bool enciphered) : m_enciphered(enciphered) {}

    /// Returns the size of the record.
    int prepare(Buffer const& plain) {
        int const compressedBytes = m_coder.compressSingleStep(
            plain.getData(), kGrainSizeBytes, m_record.getData() + kHeaderSizeBytes,
            m_record.getAllocated() - kHeaderSizeBytes);
        return (compressedBytes + kHeaderSizeBytes + 511) / 512 * 512;
    }

    void unprepare(unsigned char const* record, int recordBytes, unsigned char* plain) {
        m_coder.decompressSingleStep(record + kHeaderSizeBytes, recordBytes - kHeaderSizeBytes,
                                     plain, kGrainSizeBytes);
    }

    void write(Buffer const& plain, unsigned char* file) {
        int const recordBytes = prepare(plain);
        if (!m_enciphered) {
            std::memcpy(file, m_record.getData(), static_cast<std::size_t>(recordBytes));
            return;
        }
        m_cipherData.setUsed(kHeaderSizeBytes);
        m_cipher.encrypt(m_key, m_record.getData() + kHeaderSizeBytes,
                         recordBytes - kHeaderSizeBytes, m_cipherData, true, m_iv.getData());
        std::memcpy(file, m_cipherData.getData(), static_cast<std::size_t>(m_cipherData.getUsed()));
    }

    void read(unsigned char const* file, int compressedBytes, unsigned char* plain) {
        int const recordBytes = (compressedBytes + kHeaderSizeBytes + 511) / 512 * 512;
        std::memcpy(m_record.getData(), file, static_cast<std::size_t>(recordBytes));
        if (!m_enciphered) {
            unprepare(m_record.getData(), recordBytes, plain);
            return;
        }
        m_deciphered.setUsed(kHeaderSizeBytes);
        m_cipher.decrypt(m_key, m_record.getData() + kHeaderSizeBytes,
                         (compressedBytes + 15) / 16 * 16, m_deciphered, true, m_iv.getData());
        unprepare(m_deciphered.getData(), recordBytes, plain);
    }

private:
    bool m_enciphered;
    mzu::CMiniZCompressor m_coder{kLevel};
    krym::CCipher_AES256CBC m_cipher;
    yx::TCryptBuffer<unsigned char> m_key = makeKey();
    Buffer m_iv = makeIV();
    Buffer m_record{2 * kGrainSizeBytes, -1};
    Buffer m_cipherData{2 * kGrainSizeBytes, -1};
    Buffer m_deciphered{2 * kGrainSizeBytes, -1};
};

/// A grain with a slot that holds everything, in a file in memory.
class GrainInMemory {
public:
    explicit GrainInMemory(bool enciphered)
        : m_stream(yx::makeObject<yx::CBufferStream>(&m_file, 1.0)),
          m_cipher(enciphered ? yx::makeObject<krym::CCipher_AES256CBC>() : nullptr),
          m_grain(yx::makeObject<kelm::CVMDKGrain>(m_stream.get(), yx::IIOStream::ReadWrite,
                                                   kGrainSizeSectors, nullptr, true, kLevel,
                                                   nullptr, m_cipher.get(), makeKey(), makeIV())) {}

    void write(Buffer const& plain) {
        open();
        m_grain->write(plain.getData(), kGrainSizeBytes);
        m_grain->flushChangesToStream();
    }

    void read(unsigned char* plain) {
        open();
        m_grain->read(plain, kGrainSizeBytes);
    }

    unsigned char const* stored() const { return m_file.getData() + kGrainPosSectors * 512; }

private:
    void open() { m_grain->open(0, 0, kGrainPosSectors, kSlotSizeSectors); }

    Buffer m_file{kFileSizeSectors * 512, -1};
    yx::P<yx::CBufferStream> m_stream;
    yx::P<krym::ICipher> m_cipher;
    yx::P<kelm::CVMDKGrain> m_grain;
};

template <class Reference, class Ours>
void compare(std::string const& name, int rounds, Reference const& reference, Ours const& ours) {
    auto const repeat = [](auto const& run) {
        return [&run] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                run();
        };
    };
    bench::report(name.c_str(), bench::speedRatio(rounds, repeat(reference), repeat(ours)), kAim,
                  "");
}

void benchPreparer(Content& content, int rounds) {
    Direct direct(false);
    kelm::CVMDKDataPreparer preparer(kGrainSizeSectors, true, kLevel);
    Buffer record;
    Buffer plain(kGrainSizeBytes, -1);
    compare(
        std::string("prepare ") + content.name + " / codec", rounds,
        [&] { direct.prepare(content.bytes); },
        [&] { preparer.prepareGrainData(&content.bytes, 1, &record); });
    compare(
        std::string("unprepare ") + content.name + " / codec", rounds,
        [&] { direct.unprepare(record.getData(), record.getUsed(), plain.getData()); },
        [&] { preparer.unprepareGrainData(&record, &plain); });
}

void benchGrain(Content const& content, bool enciphered, int rounds) {
    Direct direct(enciphered);
    GrainInMemory grain(enciphered);
    Buffer file(kFileSizeSectors * 512, -1);
    Buffer plain(kGrainSizeBytes, -1);
    std::string const what =
        content.name + std::string(enciphered ? " enciphered / codec, cipher, copy of the stored"
                                              : " / codec, copy of the stored");
    compare(
        "write " + what, rounds, [&] { direct.write(content.bytes, file.getData()); },
        [&] { grain.write(content.bytes); });
    int compressedBytes = 0;
    std::memcpy(&compressedBytes, grain.stored() + 8, sizeof(compressedBytes));
    compare(
        "read " + what, rounds,
        [&] { direct.read(grain.stored(), compressedBytes, plain.getData()); },
        [&] { grain.read(plain.getData()); });
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures grains beside their codec and cipher.");
    int rounds = 101;
    bench::addRoundsTo(app, rounds);
    CLI11_PARSE(app, argc, argv);

    Content contents[] = {{"zeros", toBuffer(std::vector<unsigned char>(kGrainSizeBytes))},
                          {"text", toBuffer(bench::makeText(kGrainSizeBytes))},
                          {"random", toBuffer(bench::makeRandom(kGrainSizeBytes))}};
    for (Content& content : contents) {
        benchPreparer(content, rounds);
        benchGrain(content, false, rounds);
        benchGrain(content, true, rounds);
    }
    return 0;
}
