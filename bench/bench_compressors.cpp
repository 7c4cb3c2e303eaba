// What our compressors bring, and what they cost above the libraries under them, with grains of
// 64 KiB:
//
// - each level, by the kind of data: how fast in both directions, and the size of the streams as a
//   share of the data ("ratio");
// - the classes beside the libraries called directly, level 1 beside the coder that it was built
//   with.
//
//   bench_compressors [--help]
//
// It takes the options of Google Benchmark too: --benchmark_filter=/image/ is the file system
// alone.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <unistd.h>
#include <zlib.h>
#ifdef KELM_BENCH_LIBDEFLATE
#include <libdeflate.h>
#endif
#ifdef KELM_BENCH_ISAL
#include <isa-l/igzip_lib.h>
#endif

#include "bench/arguments.h"
#include "bench/content_files.h"
#include "bench/interleaved.h"
#include "bench/sample_content.h"
#include "compressors/compressors.h"

namespace {

constexpr int kGrainSizeBytes = 65536;
constexpr int kRoomBytes = 2 * kGrainSizeBytes;
/// Enough that the clock is read seldom.
constexpr int kGrainsPerRound = 8;
constexpr double kAim = 0.97;

using Bytes = std::vector<unsigned char>;

struct Grain {
    char const* name;
    Bytes bytes;
};

/// zlib with its states made beforehand.
class CDirectZLib {
public:
    explicit CDirectZLib(int level) {
        deflateInit(&m_deflater, level);
        inflateInit(&m_inflater);
    }
    CDirectZLib(CDirectZLib const&) = delete;
    CDirectZLib& operator=(CDirectZLib const&) = delete;
    ~CDirectZLib() {
        deflateEnd(&m_deflater);
        inflateEnd(&m_inflater);
    }

    std::size_t compress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        deflateReset(&m_deflater);
        setBuffers(m_deflater, source, sizeBytes, target);
        deflate(&m_deflater, Z_FINISH);
        return m_deflater.total_out;
    }

    std::size_t decompress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        inflateReset(&m_inflater);
        setBuffers(m_inflater, source, sizeBytes, target);
        inflate(&m_inflater, Z_FINISH);
        return m_inflater.total_out;
    }

private:
    static void setBuffers(z_stream& stream, Bytes const& source, std::size_t sizeBytes,
                           Bytes& target) {
        stream.next_in = const_cast<Bytef*>(source.data());
        stream.avail_in = static_cast<uInt>(sizeBytes);
        stream.next_out = target.data();
        stream.avail_out = static_cast<uInt>(target.size());
    }

    z_stream m_deflater{};
    z_stream m_inflater{};
};

#ifdef KELM_BENCH_LIBDEFLATE

/// libdeflate with its states made beforehand.
class CDirectLibdeflate {
public:
    explicit CDirectLibdeflate(int level) : m_compressor(libdeflate_alloc_compressor(level)) {}
    CDirectLibdeflate(CDirectLibdeflate const&) = delete;
    CDirectLibdeflate& operator=(CDirectLibdeflate const&) = delete;
    ~CDirectLibdeflate() {
        libdeflate_free_compressor(m_compressor);
        libdeflate_free_decompressor(m_decompressor);
    }

    std::size_t compress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        return libdeflate_zlib_compress(m_compressor, source.data(), sizeBytes, target.data(),
                                        target.size());
    }

    std::size_t decompress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        std::size_t resultBytes = 0;
        libdeflate_zlib_decompress(m_decompressor, source.data(), sizeBytes, target.data(),
                                   target.size(), &resultBytes);
        return resultBytes;
    }

private:
    libdeflate_compressor* m_compressor;
    libdeflate_decompressor* m_decompressor = libdeflate_alloc_decompressor();
};

#endif

#ifdef KELM_BENCH_ISAL

/// ISA-L with its state made beforehand.
class CDirectIsal {
public:
    explicit CDirectIsal(int level) : m_level(static_cast<unsigned int>(level)) {}

    std::size_t compress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        isal_deflate_stateless_init(m_stream.get());
        m_stream->level = m_level;
        m_stream->level_buf = m_levelBuffer.data();
        m_stream->level_buf_size = static_cast<unsigned int>(m_levelBuffer.size());
        m_stream->gzip_flag = IGZIP_ZLIB;
        m_stream->next_in = const_cast<unsigned char*>(source.data());
        m_stream->avail_in = static_cast<unsigned int>(sizeBytes);
        m_stream->next_out = target.data();
        m_stream->avail_out = static_cast<unsigned int>(target.size());
        isal_deflate_stateless(m_stream.get());
        return m_stream->total_out;
    }

    std::size_t decompress(Bytes const& source, std::size_t sizeBytes, Bytes& target) {
        isal_inflate_init(m_inflater.get());
        m_inflater->crc_flag = ISAL_ZLIB;
        m_inflater->next_in = const_cast<unsigned char*>(source.data());
        m_inflater->avail_in = static_cast<unsigned int>(sizeBytes);
        m_inflater->next_out = target.data();
        m_inflater->avail_out = static_cast<unsigned int>(target.size());
        isal_inflate_stateless(m_inflater.get());
        return m_inflater->total_out;
    }

private:
    unsigned int m_level;
    std::unique_ptr<isal_zstream> m_stream = std::make_unique<isal_zstream>();
    std::unique_ptr<inflate_state> m_inflater = std::make_unique<inflate_state>();
    Bytes m_levelBuffer = Bytes(ISAL_DEF_LVL1_LARGE);
};

#endif

/// One line for compressing the grain and one for decompressing it.
template <class Direct, class Ours>
void benchGrain(std::string const& name, int level, Grain const& grain, int rounds) {
    Direct direct(level);
    Ours ours(level);
    Bytes stream(kRoomBytes);
    double const compressRatio = bench::speedRatio(
        rounds,
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                direct.compress(grain.bytes, grain.bytes.size(), stream);
        },
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                ours.compressSingleStep(grain.bytes.data(), kGrainSizeBytes, stream.data(),
                                        kRoomBytes);
        });
    std::string const what = "level " + std::to_string(level) + " " + grain.name + " / " + name;
    bench::report(("compress " + what).c_str(), compressRatio, kAim, "");

    std::size_t const streamBytes = direct.compress(grain.bytes, grain.bytes.size(), stream);
    Bytes target(kGrainSizeBytes);
    double const decompressRatio = bench::speedRatio(
        rounds,
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                direct.decompress(stream, streamBytes, target);
        },
        [&] {
            for (int i = 0; i < kGrainsPerRound; ++i)
                ours.decompressSingleStep(stream.data(), static_cast<int>(streamBytes),
                                          target.data(), kGrainSizeBytes);
        });
    bench::report(("decompress " + what).c_str(), decompressRatio, kAim, "");
}

/// Data of one kind, whole grains.
struct Content {
    std::string name;
    Bytes bytes;

    std::size_t grainCount() const { return bytes.size() / kGrainSizeBytes; }
    unsigned char const* grain(std::size_t index) const {
        return bytes.data() + index * kGrainSizeBytes;
    }
};

/// Streams of all grains of a content.
std::vector<Bytes> compressGrains(yx::ISimpleCompressor& compressor, Content const& content) {
    std::vector<Bytes> streams;
    Bytes target(kRoomBytes);
    for (std::size_t i = 0; i < content.grainCount(); ++i) {
        int const sizeBytes = compressor.compressSingleStep(content.grain(i), kGrainSizeBytes,
                                                            target.data(), kRoomBytes);
        streams.emplace_back(target.begin(), target.begin() + sizeBytes);
    }
    return streams;
}

/// What every line says of its level beside the time: MB of plain data a second, and the ratio.
void addCounters(benchmark::State& state, Content const& content,
                 std::vector<Bytes> const& streams) {
    double streamBytes = 0;
    for (Bytes const& stream : streams)
        streamBytes += static_cast<double>(stream.size());
    auto const plainBytes = static_cast<double>(content.bytes.size());
    state.counters["MB"] =
        benchmark::Counter(plainBytes / 1e6, benchmark::Counter::kIsIterationInvariantRate);
    state.counters["ratio"] = streamBytes / plainBytes;
}

void compressAtLevel(benchmark::State& state, int level, Content const& content) {
    mzu::CMiniZCompressor compressor(level);
    std::vector<Bytes> const streams = compressGrains(compressor, content);
    Bytes target(kRoomBytes);
    for ([[maybe_unused]] auto const iteration : state) {
        for (std::size_t i = 0; i < content.grainCount(); ++i)
            compressor.compressSingleStep(content.grain(i), kGrainSizeBytes, target.data(),
                                          kRoomBytes);
    }
    addCounters(state, content, streams);
}

void decompressOfLevel(benchmark::State& state, int level, Content const& content) {
    mzu::CMiniZCompressor compressor(level);
    std::vector<Bytes> const streams = compressGrains(compressor, content);
    Bytes target(kGrainSizeBytes);
    for ([[maybe_unused]] auto const iteration : state) {
        for (Bytes const& stream : streams)
            compressor.decompressSingleStep(stream.data(), static_cast<int>(stream.size()),
                                            target.data(), kGrainSizeBytes);
    }
    addCounters(state, content, streams);
}

void registerLevels(std::vector<Content> const& contents) {
    constexpr int kMaxLevel = 9;
    std::pair<std::string, decltype(&compressAtLevel)> const directions[] = {
        {"compress", compressAtLevel}, {"decompress", decompressOfLevel}};
    for (Content const& content : contents) {
        for (int level = 0; level <= kMaxLevel; ++level) {
            std::string const name = "/" + content.name + "/level:" + std::to_string(level);
            for (auto const& [direction, run] : directions)
                benchmark::RegisterBenchmark((direction + name).c_str(), run, level,
                                             std::cref(content))
                    ->Unit(benchmark::kMillisecond);
        }
    }
}

struct Folders {
    std::string text = "/usr/include";
    std::string binaries = "/usr/bin";
    std::string image = "/usr/share";
    std::string work = std::filesystem::temp_directory_path();
};

std::vector<Content> gatherContents(Folders const& folders) {
    constexpr std::size_t kGrains = 64;
    constexpr std::size_t kSizeBytes = kGrains * kGrainSizeBytes;
    std::string work = folders.work + "/bench_compressors.XXXXXX";
    if (!::mkdtemp(work.data()))
        bench::failWith("cannot make a folder in " + folders.work);
    Bytes const image = bench::readPiecesWithData(bench::makeFileSystemImage(folders.image, work),
                                                  kGrainSizeBytes, kGrains);
    std::filesystem::remove_all(work);
    return {{"text", bench::readFiles(folders.text, kSizeBytes,
                                      [](auto const& path) { return path.extension() == ".h"; })},
            {"binaries", bench::readFiles(folders.binaries, kSizeBytes, bench::isElf)},
            {"image", image},
            {"zeros", Bytes(kSizeBytes, 0)},
            {"random", bench::makeRandom(kSizeBytes)}};
}

/// Our classes beside what they call.
void benchClasses(int rounds) {
    Grain const grains[] = {{"text", bench::makeText(kGrainSizeBytes)},
                            {"random", bench::makeRandom(kGrainSizeBytes)},
                            {"zeros", Bytes(kGrainSizeBytes, 0)}};
    for (Grain const& grain : grains) {
        // zlib stores what does not shrink, and 1 is the default of the disk code.
        benchGrain<CDirectZLib, zlu::CZLibCompressor>("zlib", 0, grain, rounds);
        benchGrain<CDirectZLib, zlu::CZLibCompressor>("zlib", 1, grain, rounds);
#ifdef KELM_BENCH_ISAL
        benchGrain<CDirectIsal, mzu::CMiniZCompressor>("ISA-L", 1, grain, rounds);
#endif
#ifdef KELM_BENCH_LIBDEFLATE
        benchGrain<CDirectLibdeflate, mzu::CMiniZCompressor>("libdeflate", 1, grain, rounds);
        benchGrain<CDirectLibdeflate, mzu::CMiniZCompressor>("libdeflate", 6, grain, rounds);
#endif
    }
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app("Measures the compressors, level by level and beside the libraries under them.");
    int rounds = 101;
    Folders folders;
    bench::addRoundsTo(app, rounds);
    app.add_option("--text", folders.text, "A folder with headers")->capture_default_str();
    app.add_option("--binaries", folders.binaries, "A folder with programs")->capture_default_str();
    bench::addContentTo(app, folders.image);
    bench::addWorkTo(app, folders.work);
    app.footer("Options that begin with --benchmark_ are Google Benchmark's.");
    app.allow_extras();
    CLI11_PARSE(app, argc, argv);

    std::vector<std::string> words = app.remaining();
    words.insert(words.begin(), {argv[0], "--benchmark_min_time=0.2"});
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    int count = static_cast<int>(pointers.size());
    benchmark::Initialize(&count, pointers.data());
    if (benchmark::ReportUnrecognizedArguments(count, pointers.data()))
        return 1;

    std::vector<Content> const contents = gatherContents(folders);
    registerLevels(contents);
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchClasses(rounds);
    return 0;
}
