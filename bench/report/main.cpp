// Measures kelm as a whole, each figure beside its limit, and writes a report.
//
//   bench_report [--report FILE] [--work FOLDER] [--content FOLDER] [--tool FILE] [--only PART]
//                [--quick]
//
// bench/README.md tells what each figure means.

#include <cstdio>
#include <cstdlib>
#include <filesystem>

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

Arguments parse(int argc, char** argv) {
    Arguments arguments;
    for (int i = 1; i < argc; ++i) {
        std::string const name = argv[i];
        if (name == "--quick") {
            arguments.quick = true;
            continue;
        }
        std::string* const value = name == "--report"    ? &arguments.report
                                   : name == "--work"    ? &arguments.work
                                   : name == "--content" ? &arguments.content
                                   : name == "--tool"    ? &arguments.tool
                                   : name == "--only"    ? &arguments.only
                                                         : nullptr;
        if (!value || i + 1 == argc)
            fail("unknown argument, or one without a value: " + name);
        *value = argv[++i];
    }
    return arguments;
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
    Arguments const arguments = parse(argc, argv);
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
        context.report.addText("**The work files lie in memory, so nothing here tells of a "
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
