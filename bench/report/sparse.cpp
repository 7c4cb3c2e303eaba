#include <algorithm>

#include "bench/report/bench_context.h"
#include "bench/report/image.h"
#include "bench/report/machine.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"

// What the program takes for a disk of terabytes of which little is there: time should go with
// that, and not with the size of the disk.

namespace bench {

namespace {

constexpr long long kDistanceBytes = 64 * kMiB;
constexpr double kMaxSparseMemoryBytes = 64.0 * kMiB;

/// An empty disk in so many files, none of which is there but the first.
constexpr long long kEmptyFileBytes = 2 * kGiB;
constexpr long long kEmptyFiles = 31'750;
constexpr double kMaxSecondsOfEmptyCheck = 5.0;
constexpr double kMaxSecondsOfEmptyMap = 3.0;

class SparseBench {
public:
    explicit SparseBench(Context& context)
        : m_context(context), m_folder(chooseFolder(context) / "sparse") {
        std::filesystem::create_directory(m_folder);
    }
    SparseBench(SparseBench const&) = delete;
    SparseBench& operator=(SparseBench const&) = delete;
    ~SparseBench() { std::filesystem::remove_all(m_folder); }

    void run() {
        long long const bytes = 4096 * kGiB / m_context.shrink;
        measureDense(bytes);
        writeImage(bytes);
        measure("import",
                {"import", path("image.raw"), path("disk.vmdk"), "--split", "64G", "--on-demand"});
        // Room in memory for the copy.
        std::filesystem::remove(path("image.raw"));
        measure("map", {"map", path("disk.vmdk")});
        measure("check", {"check", path("disk.vmdk")});
        measure("export", {"export", path("disk.vmdk"), path("copy.raw")});
        addFigures();
        measureEmpty();
    }

private:
    /// In memory if there is room for the image and the disk.
    static std::filesystem::path const& chooseFolder(Context const& context) {
        std::filesystem::path const& quiet = context.getQuietFolder();
        auto const needed = static_cast<std::uintmax_t>(10 * kGiB / context.shrink);
        return std::filesystem::space(quiet).available > needed ? quiet : context.folder;
    }

    std::string path(std::string const& name) const { return m_folder / name; }

    /// One grain of data in each 64 MiB.
    void writeImage(long long bytes) const {
        std::string const raw = path("image.raw");
        std::filesystem::resize_file((BareFile(raw, BareFile::Mode::New), raw),
                                     static_cast<std::uintmax_t>(bytes));
        std::vector<unsigned char> const content = randomBytes(kGrainBytes);
        BareFile const file(raw, BareFile::Mode::Update);
        for (long long position = 0; position < bytes; position += kDistanceBytes)
            file.write(content.data(), kGrainBytes, position);
    }

    /// The same data where nothing lies between them.
    void measureDense(long long bytes) {
        std::string const dense = path("dense.raw");
        std::vector<unsigned char> const content = randomBytes(kGrainBytes);
        {
            BareFile const file(dense, BareFile::Mode::New);
            for (long long grain = 0; grain < bytes / kDistanceBytes; ++grain)
                file.write(content.data(), kGrainBytes, grain * kGrainBytes);
        }
        measureTool("dense import", {"import", dense, path("dense.vmdk")});
        std::filesystem::remove(dense);
        measureTool("dense map", {"map", path("dense.vmdk")});
        measureTool("dense check", {"check", path("dense.vmdk")});
        measureTool("dense export", {"export", path("dense.vmdk"), path("copy.raw")});
        std::filesystem::remove(path("copy.raw"));
        std::filesystem::remove(path("dense.vmdk"));
        std::filesystem::remove(path("dense.vmdk.digests"));
    }

    /// Of extents, and nothing in them.
    void measureEmpty() {
        std::string const disk = path("empty.vmdk");
        long long const files = std::max(kEmptyFiles / m_context.shrink, 1LL);
        runProgram({m_context.tool, "create", disk, "--size",
                    std::to_string(files * kEmptyFileBytes), "--split", "2G", "--on-demand",
                    "--allow-oversize"});
        measure("empty check", {"check", disk});
        measure("empty map", {"map", disk});
        addEmptyFigure("check", kMaxSecondsOfEmptyCheck, files);
        addEmptyFigure("map", kMaxSecondsOfEmptyMap, files);
    }

    void addEmptyFigure(char const* command, double limitSeconds, long long files) {
        double const seconds = m_times.median(std::string("empty ") + command);
        m_context.report.addFigure(
            {format("`kelm %s` of an empty disk in %lld files, and the time that it may take",
                    command, files),
             formatSeconds(seconds), formatSeconds(limitSeconds), seconds / limitSeconds,
             Aim::atMost(1.0), ""});
    }

    void measureTool(std::string const& name, std::vector<std::string> command) {
        command.insert(command.begin(), m_context.tool);
        ProcessUse const use = runProgram(command);
        m_times.add(name, use.seconds);
        m_memory.add(name, static_cast<double>(use.peakMemoryBytes));
    }

    void measure(std::string const& name, std::vector<std::string> command) {
        command.emplace_back("--allow-oversize");
        measureTool(name, std::move(command));
    }

    void addFigures() {
        for (char const* const name : {"import", "map", "check", "export"}) {
            std::string const dense = std::string("dense ") + name;
            m_context.report.addFigure(
                {format("`kelm %s` of 4 TiB with a grain in each 64 MiB, and of the grains alone",
                        name),
                 formatSeconds(m_times.median(name)), formatSeconds(m_times.median(dense)),
                 m_times.median(name) / m_times.median(dense), Aim::none(), ""});
            m_context.report.addFigure({"... peak memory", formatBytes(m_memory.median(name)),
                                        formatBytes(kMaxSparseMemoryBytes),
                                        m_memory.median(name) / kMaxSparseMemoryBytes,
                                        Aim::atMost(1.0), ""});
        }
    }

    Context& m_context;
    std::filesystem::path m_folder;
    Measurements m_times;
    Measurements m_memory;
};

} // namespace

void measureSparse(Context& context) {
    SparseBench(context).run();
}

} // namespace bench
