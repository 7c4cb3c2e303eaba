// Descriptors and empty extents: parsing, looking up and building descriptor texts of up to 64,000
// extents, and laying out extents of up to 2 TiB, beside writing as many zeros.
//
//   bench_format [Google Benchmark's options]
//
// Nothing touches a file.

#include <algorithm>
#include <cstdint>
#include <string>

#include <benchmark/benchmark.h>

#include "kelm/format/constants.h"
#include "kelm/format/descriptor.h"
#include "kelm/format/empty_sparse_extent_file.h"
#include "yx/file_system.h"
#include "yx/optimizing_io_stream.h"

namespace {

using kelm::CVMDKDescriptor;

yx::TBuffer<unsigned char> toBuffer(std::string const& text) {
    yx::TBuffer<unsigned char> buffer(static_cast<int>(text.size()), -1);
    yx::copyMemory(buffer.getData(), text.data(), text.size());
    return buffer;
}

/// A descriptor of `extents` extent lines. The name of each file is so long that 30,000 lines make
/// about 5 MiB.
std::string descriptorText(std::int64_t extents) {
    std::string const name(130, 'n');
    std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=fffffffe\n"
                       "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n\n";
    for (std::int64_t i = 0; i < extents; ++i)
        text += "RW 4192256 SPARSE \"" + name + std::to_string(100000 + i) + ".vmdk\"\n";
    return text + "\nddb.adapterType = \"lsilogic\"\nddb.geometry.cylinders = \"6241\"\n";
}

void parseDescriptor(benchmark::State& state) {
    yx::TBuffer<unsigned char> const text = toBuffer(descriptorText(state.range(0)));
    for (auto _ : state) {
        CVMDKDescriptor descriptor(text);
        benchmark::DoNotOptimize(descriptor);
    }
    state.SetBytesProcessed(state.iterations() * text.getUsed());
    state.SetComplexityN(state.range(0));
}
BENCHMARK(parseDescriptor)
    ->Arg(1000)
    ->Arg(8000)
    ->Arg(30000)
    ->Arg(64000)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

/// 5 MiB made of one short line: what a damaged or hostile file costs.
void parseShortLines(benchmark::State& state, char const* line) {
    std::string text;
    while (text.size() < 5u * 1024 * 1024)
        text += line;
    yx::TBuffer<unsigned char> const buffer = toBuffer(text);
    for (auto _ : state) {
        CVMDKDescriptor descriptor(buffer);
        benchmark::DoNotOptimize(descriptor);
    }
    state.SetBytesProcessed(state.iterations() * buffer.getUsed());
}
BENCHMARK_CAPTURE(parseShortLines, emptyLines, "\n")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseShortLines, keys, "a=\n")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseShortLines, words, "a\n")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseShortLines, noExtents, "a b c \"d\"\n")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseShortLines, noNumbers, "a 1- c \"d\"\n")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(parseShortLines, extents, "a 1 c \"d\"\n")->Unit(benchmark::kMillisecond);

void lookUp(benchmark::State& state, char const* key) {
    CVMDKDescriptor const descriptor(toBuffer(descriptorText(30000)));
    yx::String const wanted(key);
    for (auto _ : state)
        benchmark::DoNotOptimize(descriptor.hasValue(wanted));
}
BENCHMARK_CAPTURE(lookUp, inFrontOfExtents, "createType")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(lookUp, behind30000Extents, "ddb.adapterType")->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(lookUp, absent, "yxEncAlg")->Unit(benchmark::kMicrosecond);

void buildDescriptor(benchmark::State& state) {
    for (auto _ : state) {
        CVMDKDescriptor descriptor;
        for (std::int64_t i = 0; i < state.range(0); ++i) {
            descriptor.addExtentEntry(
                yx::makeObject<kelm::CVMDKExtentInfo>("RW", 4192256, "SPARSE", "disk.vmdk", -1)
                    .get());
        }
        benchmark::DoNotOptimize(descriptor.toString());
    }
    state.SetComplexityN(state.range(0));
}
BENCHMARK(buildDescriptor)
    ->Arg(1000)
    ->Arg(8000)
    ->Arg(64000)
    ->Complexity()
    ->Unit(benchmark::kMillisecond);

/// A file that keeps one piece of memory: writing to it costs a copy and no more, so that what is
/// measured is the work above the file.
class SinkStream : public yx::CBase, public virtual yx::IIOStream {
public:
    __int64 getLength() const override { return m_length; }
    __int64 getPosition() const override { return m_position; }
    yx::CURI getURI() override { return {}; }
    void seek(__int64 position) override { m_position = position; }
    yx::P<yx::IStreamLock> lockRange(__int64, __int64, LockType) override { return {}; }
    void close() override {}

    void read(void*, int sizeBytes) override { m_position += sizeBytes; }
    int readLax(void*, int) override { return 0; }
    int readAvailable(void*, int) override { return 0; }
    bool waitReadable(int) const override { return true; }
    bool isEndOfStream() const override { return m_position >= m_length; }
    int isEndOfStream_NonBlocking() const override { return isEndOfStream() ? 1 : 0; }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier*) override {
        m_memory.ensureAllocated(sizeBytes);
        yx::copyMemory(m_memory.getData(), source, static_cast<std::size_t>(sizeBytes));
        benchmark::ClobberMemory();
        m_position += sizeBytes;
        m_length = std::max(m_length, m_position);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        write(slice.getData(), slice.getLength(), barrier);
    }
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier*) override { return {}; }
    void flush() override {}
    void setLength(__int64 length) override { m_length = length; }

private:
    yx::TBuffer<unsigned char> m_memory;
    __int64 m_position = 0;
    __int64 m_length = 0;
};

class SinkFileSystem : public yx::CBase, public virtual yx::IFileSystem {
public:
    yx::P<yx::IIOStream> openFile(yx::CURI const&, yx::IIOStream::Access, unsigned int*) override {
        m_stream = yx::makeObject<SinkStream>();
        return m_stream;
    }
    bool fileExists(yx::CURI const&) override { return false; }
    void deleteFile(yx::CURI const&, bool) override {}

    __int64 lastLength() const { return m_stream->getLength(); }

private:
    yx::P<SinkStream> m_stream;
};

constexpr __int64 kGrainsPerGiB = 16384;

yx::TBuffer<unsigned char> zeroBuffer() {
    yx::TBuffer<unsigned char> zeros(kelm::kGrainTableSizeBytes, -1);
    yx::initMemory(zeros.getData(), 0, kelm::kGrainTableSizeBytes);
    return zeros;
}

__int64 createExtent(SinkFileSystem& files, bool streamOptimized, __int64 capacityGiB) {
    kelm::createEmptyVMDKSparseExtentFile(
        &files, yx::CURI("file:///x.vmdk"), streamOptimized, capacityGiB * kGrainsPerGiB,
        kelm::kNewDiskGrainSizeSectors, zeroBuffer(), nullptr, 0, {});
    return files.lastLength();
}

void createEmptyExtent(benchmark::State& state, bool streamOptimized) {
    SinkFileSystem files;
    __int64 bytes = 0;
    for (auto _ : state)
        bytes = createExtent(files, streamOptimized, state.range(0));
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK_CAPTURE(createEmptyExtent, ordinary, false)
    ->Arg(2)
    ->Arg(2048)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(createEmptyExtent, streamOptimized, true)
    ->Arg(2)
    ->Arg(2048)
    ->Unit(benchmark::kMillisecond);

/// The same number of zero bytes in the same pieces through the same layer: the limit of the above.
void writeZeros(benchmark::State& state, bool streamOptimized) {
    SinkFileSystem files;
    __int64 const bytes = createExtent(files, streamOptimized, state.range(0));
    yx::TBuffer<unsigned char> const zeros = zeroBuffer();
    for (auto _ : state) {
        unsigned int reserved = 0;
        yx::COptimizingIOStream stream(
            files.openFile(yx::CURI(), yx::IIOStream::ReadWrite, &reserved).get());
        for (__int64 left = bytes; left > 0; left -= zeros.getUsed())
            stream.write(zeros.getData(), zeros.getUsed(), nullptr);
        stream.close();
    }
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK_CAPTURE(writeZeros, ordinary, false)->Arg(2)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(writeZeros, streamOptimized, true)
    ->Arg(2)
    ->Arg(2048)
    ->Unit(benchmark::kMillisecond);

} // namespace
