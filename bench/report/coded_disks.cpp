#include "bench/report/bench_context.h"
#include "bench/report/codec.h"
#include "bench/report/image.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"

// One thread, disks that compress or encipher, in memory if there is room: the codec and the
// cipher, which are the limit, have no device to wait for.

namespace bench {

namespace {

constexpr char kPassword[] = "password";

void readAll(kelm::CVMDKDisk& disk, long long bytes, unsigned char* buffer) {
    disk.seek(0);
    for (long long position = 0; position < bytes; position += kGrainBytes)
        disk.read(buffer, kGrainBytes);
}

void measureCompressed(Context& context) {
    std::string const imagePath = context.folder / "image.raw";
    auto const grains = readGrains(imagePath, static_cast<std::size_t>(2048 / context.shrink));
    BareCodec codec(grains);
    std::string const path = context.getQuietFolder() / "coded.vmdk";
    std::vector<unsigned char> buffer(kGrainBytes);
    auto const bytes = static_cast<long long>(codec.getPlainBytes());
    Measurements times;
    for (int round = 0; round <= context.rounds; ++round) {
        yx::P<kelm::CVMDKDisk> const target = createDisk(path, bytes, {.compressed = true}, false);
        double const compress = secondsOf([&] { codec.compressAll(); });
        makeMemoryReady();
        double const write = secondsOf([&] {
            writeGrains(*target, grains);
            target->flushChanges();
        });
        double const decompress = secondsOf([&] { codec.decompressAll(); });
        double const read = secondsOf([&] { readAll(*target, bytes, buffer.data()); });
        if (round == 0)
            continue;
        times.add("compress", compress);
        times.add("write", write);
        times.add("decompress", decompress);
        times.add("read", read);
    }
    auto const total = static_cast<double>(bytes);
    context.report.addFigure({"compressed read, one thread, and the codec alone",
                              formatRate(total, times.median("read")),
                              formatRate(total, times.median("decompress")),
                              times.ratio("decompress", "read"), Aim::atLeast(0.93), ""});
    context.report.addFigure({"compressed write, one thread, and the codec alone",
                              formatRate(total, times.median("write")),
                              formatRate(total, times.median("compress")),
                              times.ratio("compress", "write"), Aim::atLeast(0.93), ""});
    removeAndSettle(path);
}

void measureEncrypted(Context& context) {
    long long const bytes = 128 * kMiB / context.shrink;
    std::string const path = context.getQuietFolder() / "enciphered.vmdk";
    std::string const barePath = context.getQuietFolder() / "bare.raw";
    std::vector<unsigned char> const data = randomBytes(kMiB);
    std::vector<unsigned char> buffer(kGrainBytes);
    BareCipher cipher;
    Measurements times;
    for (int round = 0; round <= context.rounds; ++round) {
        yx::P<kelm::CVMDKDisk> const disk = createDisk(path, bytes, {.password = kPassword}, false);
        std::filesystem::remove(barePath);
        makeMemoryReady();
        auto const grainAt = [&data](long long position) { return data.data() + position % kMiB; };
        double const bareWrite = secondsOf([&] {
            BareFile const file(barePath, BareFile::Mode::New);
            for (long long position = 0; position < bytes; position += kGrainBytes) {
                cipher.encipher(grainAt(position));
                file.write(cipher.getResult(), kGrainBytes, position);
            }
        });
        double const write = secondsOf([&] {
            for (long long position = 0; position < bytes; position += kGrainBytes)
                disk->write(grainAt(position), kGrainBytes);
            disk->flushChanges();
        });
        double const bareRead = secondsOf([&] {
            BareFile const file(barePath, BareFile::Mode::Read);
            for (long long position = 0; position < bytes; position += kGrainBytes) {
                file.read(buffer.data(), kGrainBytes, position);
                cipher.decipher(buffer.data());
            }
        });
        double const read = secondsOf([&] { readAll(*disk, bytes, buffer.data()); });
        if (round == 0)
            continue;
        times.add("bare write", bareWrite);
        times.add("write", write);
        times.add("bare read", bareRead);
        times.add("read", read);
    }
    auto const total = static_cast<double>(bytes);
    context.report.addFigure({"encrypted plain read, and the cipher plus `pread`",
                              formatRate(total, times.median("read")),
                              formatRate(total, times.median("bare read")),
                              times.ratio("bare read", "read"), Aim::atLeast(0.90), ""});
    context.report.addFigure({"encrypted plain write, and the cipher plus `pwrite`",
                              formatRate(total, times.median("write")),
                              formatRate(total, times.median("bare write")),
                              times.ratio("bare write", "write"), Aim::atLeast(0.90), ""});
    removeAndSettle(path);
    removeAndSettle(barePath);
}

} // namespace

void measureCodedDisks(Context& context) {
    measureCompressed(context);
    measureEncrypted(context);
}

} // namespace bench
