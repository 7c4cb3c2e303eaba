// Measures kelm as a whole, each figure beside its limit, and writes a report.
//
//   bench_report [--help]
//
// bench/README.md explains each figure.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "bench/arguments.h"
#include "bench/report/bench_context.h"
#include "bench/report/image.h"
#include "bench/report/machine.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"

namespace {

using namespace bench;

constexpr long long kImageDataBytes = 520 * kMiB;

struct Part {
    char const* name;
    char const* heading;
    void (*measure)(Context&);
    bool needsImage;
};

constexpr Part kParts[] = {
    {"plain", "Plain disks, one thread", measurePlainDisk, false},
    {"random", "Small writes", measureRandomWrites, false},
    {"coded", "Compressed and encrypted disks, one thread", measureCodedDisks, true},
    {"tool", "The program", measureTool, true},
    {"opening", "Opening", measureOpening, false},
    {"chains", "Chains of child disks", measureChains, false},
    {"digests", "Digests", measureDigests, true},
    {"thinning", "Thinning out chains", measureThinning, false},
    {"sparse", "Large disks, nearly empty", measureSparse, false},
    {"memory", "Memory of a disk", measureMemory, false},
    {"growth", "Growth", measureGrowth, false},
};

/// A folder that goes with its content.
class WorkFolder {
public:
    explicit WorkFolder(std::string const& parent) {
        std::string name = parent + "/kelm_bench.XXXXXX";
        if (!::mkdtemp(name.data()))
            fail("cannot make a folder in " + parent);
        m_path = name;
    }
    WorkFolder(WorkFolder const&) = delete;
    WorkFolder& operator=(WorkFolder const&) = delete;
    ~WorkFolder() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    std::filesystem::path const& getPath() const { return m_path; }

private:
    std::filesystem::path m_path;
};

struct Arguments {
    std::string report = "report.md";
    std::string work = "/var/tmp";
    std::string content = "/usr/share";
    std::string tool = KELM_TOOL;
    std::string only;
    bool quick = false;
};

void addTo(CLI::App& app, Arguments& arguments) {
    std::vector<std::string> parts;
    for (Part const& part : kParts)
        parts.push_back(part.name);
    app.add_option("--report", arguments.report, "The file to write")->capture_default_str();
    addWorkTo(app, arguments.work);
    addContentTo(app, arguments.content);
    app.add_option("--tool", arguments.tool, "The program kelm")
        ->check(CLI::ExistingFile)
        ->capture_default_str();
    app.add_option("--only", arguments.only, "One part alone")->check(CLI::IsMember(parts));
    app.add_flag("--quick", arguments.quick, "Small sizes, one round: a look, no figures");
}

/// Whether a folder in memory is there with room for an image.
bool hasRoomInMemory(std::string const& folder) {
    std::error_code error;
    auto const space = std::filesystem::space(folder, error);
    return !error && isInMemory(folder) &&
           space.available > static_cast<std::uintmax_t>(3 * kImageDataBytes);
}

void measureParts(Context& context, Arguments const& arguments) {
    bool haveImage = false;
    for (Part const& part : kParts) {
        if (!arguments.only.empty() && arguments.only != part.name)
            continue;
        if (part.needsImage && !haveImage) {
            makeImage(context.folder / "image.raw", context.content,
                      kImageDataBytes / context.shrink, context.getQuietFolder());
            haveImage = true;
        }
        context.report.addHeading(part.heading);
        double const seconds = secondsOf([&] { part.measure(context); });
        std::printf("  (%.0f s)\n", seconds);
    }
}

} // namespace

int main(int argc, char** argv) {
    constexpr char kMemoryFolder[] = "/dev/shm";
    CLI::App app("Measures kelm as a whole, each figure beside its limit.");
    Arguments arguments;
    addTo(app, arguments);
    CLI11_PARSE(app, argc, argv);

    ::setenv(kPasswordVariable, "password", 1);
    startLauncher();
    WorkFolder const work(arguments.work);
    Context context;
    context.folder = work.getPath();
    context.content = arguments.content;
    context.tool = arguments.tool;
    context.shrink = arguments.quick ? 8 : 1;
    context.rounds = arguments.quick ? 1 : 5;
    bool const memory = hasRoomInMemory(kMemoryFolder);
    WorkFolder const memoryWork(memory ? kMemoryFolder : arguments.work);
    if (memory)
        context.memoryFolder = memoryWork.getPath();

    context.report.addHeading("Machine");
    addMachine(context.report, context.folder);
    if (isInMemory(context.folder))
        context.report.addText("**The work files are in memory, so no figure here involves a "
                               "device.** Name a folder on a disk.");
    measureParts(context, arguments);
    context.report.addText(format("%d of %d aims met.",
                                  context.report.getFigureCount() - context.report.getMissCount(),
                                  context.report.getFigureCount()));
    if (!context.report.write(arguments.report))
        fail("cannot write " + arguments.report);
    std::printf("%s\n", arguments.report.c_str());
    return 0;
}
