// What the buffering layer costs and saves, as ratios of two sides that are measured in turn.
//
//   bench_streams [--work FOLDER] [--rounds N]
//
// The files lie in the work folder (default: the system's temporary one) and stay in the page
// cache, so the figures, in processor time, are about the way of the bytes through memory, not
// about the device.

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "bench/arguments.h"
#include "bench/interleaved.h"
#include "yx/data_in_stream.h"
#include "yx/native_file_system.h"
#include "yx/optimizing_io_stream.h"

namespace {

constexpr int kFileSizeBytes = 32 * 1024 * 1024;

/// A file with both ways to it: the operating system's and ours. It goes with the object.
class BenchFile {
public:
    explicit BenchFile(std::filesystem::path const& directory)
        : m_path(directory / ("bench_streams_" + std::to_string(getpid()))) {
        m_descriptor = open(m_path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if (m_descriptor < 0) {
            std::perror(m_path.c_str());
            std::exit(1);
        }
        std::vector<unsigned char> const content(kFileSizeBytes, 0x5A);
        check(pwrite(m_descriptor, content.data(), content.size(), 0), kFileSizeBytes);
        yx::CURI const uri(yx::TPathImpl<yx::CUnixPathTraits>(m_path.string().c_str(), true, false),
                           false);
        unsigned int reserved = 0;
        // Nothing is handed to the device on the way, as on the other side.
        m_native = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem)
                       ->openFile(uri, yx::IIOStream::ReadWrite, &reserved);
    }
    BenchFile(BenchFile const&) = delete;
    BenchFile& operator=(BenchFile const&) = delete;
    ~BenchFile() {
        ::close(m_descriptor);
        std::filesystem::remove(m_path);
    }

    int getDescriptor() const { return m_descriptor; }
    yx::P<yx::COptimizingIOStream> makeStream() const {
        return yx::makeObject<yx::COptimizingIOStream>(m_native.get());
    }

    static void check(ssize_t count, int expected) {
        if (count != expected) {
            std::fprintf(stderr, "short transfer: %zd of %d bytes\n", count, expected);
            std::exit(1);
        }
    }

private:
    std::filesystem::path m_path;
    int m_descriptor;
    yx::P<yx::IIOStream> m_native;
};

/// The bytes that a transfer works on, in a place that no optimiser can see through.
unsigned char* getBuffer() {
    static std::vector<unsigned char> buffer(1024 * 1024, 1);
    return buffer.data();
}

void barePreads(BenchFile const& file, int sizeBytes) {
    for (int position = 0; position < kFileSizeBytes; position += sizeBytes) {
        BenchFile::check(
            pread(file.getDescriptor(), getBuffer(), static_cast<std::size_t>(sizeBytes), position),
            sizeBytes);
    }
}

void barePwrites(BenchFile const& file, int sizeBytes) {
    for (int position = 0; position < kFileSizeBytes; position += sizeBytes) {
        BenchFile::check(pwrite(file.getDescriptor(), getBuffer(),
                                static_cast<std::size_t>(sizeBytes), position),
                         sizeBytes);
    }
}

void streamReads(BenchFile const& file, int sizeBytes) {
    auto const stream = file.makeStream();
    for (int position = 0; position < kFileSizeBytes; position += sizeBytes)
        stream->read(getBuffer(), sizeBytes);
}

/// Without the flush to the device, which the other side does not do either.
void streamWrites(BenchFile const& file, int sizeBytes) {
    auto const stream = file.makeStream();
    for (int position = 0; position < kFileSizeBytes; position += sizeBytes)
        stream->write(getBuffer(), sizeBytes, nullptr);
}

void memoryReads(std::vector<unsigned char> const& content, int sizeBytes) {
    for (int position = 0; position < kFileSizeBytes; position += sizeBytes)
        std::memcpy(getBuffer(), content.data() + position, static_cast<std::size_t>(sizeBytes));
}

/// Millions of 4-byte reads a second.
double typedReadRate(BenchFile const& file) {
    auto const stream = file.makeStream();
    yx::CDataInStream data(stream.get());
    unsigned int sum = 0;
    double const seconds = bench::timeOnce([&] {
        for (int position = 0; position < kFileSizeBytes; position += 4)
            sum += data.readUInt32();
    });
    *getBuffer() = static_cast<unsigned char>(sum);
    return kFileSizeBytes / 4 / seconds / 1e6;
}

void benchPassThrough(BenchFile const& file, int rounds) {
    for (int sizeBytes : {64 * 1024, 1024 * 1024}) {
        std::string const size = sizeBytes == 64 * 1024 ? "64 KiB" : "1 MiB";
        bench::report(("sequential reads of " + size + " / bare pread").c_str(),
                      bench::speedRatio(
                          rounds, [&] { barePreads(file, sizeBytes); },
                          [&] { streamReads(file, sizeBytes); }),
                      0.95, "");
        bench::report(("sequential writes of " + size + " / bare pwrite").c_str(),
                      bench::speedRatio(
                          rounds, [&] { barePwrites(file, sizeBytes); },
                          [&] { streamWrites(file, sizeBytes); }),
                      0.95, "");
    }
}

void benchSmall(BenchFile const& file, int rounds) {
    constexpr int kSizeBytes = 512;
    std::vector<unsigned char> const content(kFileSizeBytes, 0x5A);
    bench::report("sequential reads of 512 bytes / memcpy from memory",
                  bench::speedRatio(
                      rounds, [&] { memoryReads(content, kSizeBytes); },
                      [&] { streamReads(file, kSizeBytes); }),
                  0.5, "");
    bench::note(
        "sequential reads of 512 bytes / bare pread of 512",
        bench::speedRatio(
            rounds, [&] { barePreads(file, kSizeBytes); }, [&] { streamReads(file, kSizeBytes); }),
        "");
    // No buffering can pass the speed at which the system hands out large pieces.
    bench::report(
        "sequential reads of 512 bytes / bare pread of 256 KiB",
        bench::speedRatio(
            rounds, [&] { barePreads(file, 256 * 1024); }, [&] { streamReads(file, kSizeBytes); }),
        0.85, "");
    bench::report("sequential writes of 512 bytes / bare pwrite of 512",
                  bench::speedRatio(
                      rounds, [&] { barePwrites(file, kSizeBytes); },
                      [&] { streamWrites(file, kSizeBytes); }),
                  10, "");
}

void benchTyped(BenchFile const& file, int rounds) {
    std::vector<double> rates;
    for (int i = 0; i < rounds; ++i)
        rates.push_back(typedReadRate(file));
    bench::report("4-byte reads through CDataInStream, millions a second", bench::median(rates),
                  100, "M/s");
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures the buffering layer beside bare calls.");
    std::string work = std::filesystem::temp_directory_path();
    int rounds = 41;
    bench::addWorkTo(app, work);
    bench::addRoundsTo(app, rounds);
    CLI11_PARSE(app, argc, argv);

    BenchFile const file(work);
    benchPassThrough(file, rounds);
    benchSmall(file, rounds);
    benchTyped(file, rounds);
    return 0;
}
