#include "bench/report/bench_context.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"
#include "bench/report/work_files.h"

// Taking links out of a long chain, and making one of some.

namespace bench {

namespace {

constexpr int kLinks = 30;

/// The link that is dropped holds as much as this, each other one a sixteenth of it.
constexpr long long kLargeLinkBytes = 512 * kMiB;
constexpr int kLargeLink = 15;

class ThinningBench {
public:
    ThinningBench(Context& context, std::string const& option)
        : m_context(context), m_folder(context.getQuietFolder() / "thinning") {
        std::filesystem::create_directory(m_folder);
        makeChain(option);
    }
    ThinningBench(ThinningBench const&) = delete;
    ThinningBench& operator=(ThinningBench const&) = delete;
    ~ThinningBench() { std::filesystem::remove_all(m_folder); }

    void run(std::string const& kind) {
        Measurements times;
        Measurements memory;
        double bytes = static_cast<double>(fileSizeBytes(linkName(kLargeLink)));
        for (int round = 0; round < m_context.rounds; ++round) {
            times.time("copy", [&] { copyLink(); });
            addUse(times, memory, "drop", dropLink());
            addUse(times, memory, "merge", mergeLinks());
            addUse(times, memory, "list", runProgram({m_context.tool, "list", m_folder}));
        }
        addFigure(kind + ", kelm drop of a link, and copying its file", "drop", times, bytes);
        addFigure(kind + ", kelm merge of three links, and copying the file of the largest",
                  "merge", times, bytes);
        for (char const* const work : {"drop", "merge", "list"}) {
            m_context.report.addFigure(
                {kind + ", kelm " + work + format(", chain of %d disks, peak memory", kLinks),
                 formatBytes(memory.median(work)), formatBytes(128.0 * kMiB),
                 memory.median(work) / (128.0 * kMiB), Aim::atMost(1.0), ""});
        }
    }

private:
    static void addUse(Measurements& times, Measurements& memory, char const* name,
                       ProcessUse const& use) {
        times.add(name, use.seconds);
        memory.add(name, static_cast<double>(use.peakMemoryBytes));
    }

    std::string linkName(int link) const {
        return m_folder / ("link" + std::to_string(link) + ".vmdk");
    }

    /// Each link has grains of its own at the same distance from each other.
    void makeChain(std::string const& option) const {
        long long const diskBytes = 20 * kGiB;
        std::string const raw = m_folder / "day.raw";
        std::filesystem::resize_file((BareFile(raw, BareFile::Mode::New), raw),
                                     static_cast<std::uintmax_t>(diskBytes));
        for (int link = 0; link < kLinks; ++link) {
            long long const large = kLargeLinkBytes / m_context.shrink;
            changeImage(raw, link, link == kLargeLink ? large : large / 16);
            std::vector<std::string> command = {m_context.tool, "import", raw, linkName(link),
                                                option};
            if (option.empty())
                command.pop_back();
            if (link > 0)
                command.insert(command.end(), {"--parent", linkName(link - 1)});
            runProgram(command);
        }
        std::filesystem::remove(raw);
    }

    static void changeImage(std::string const& raw, int link, long long bytes) {
        long long const grains = bytes / kGrainBytes;
        long long const distance = fileSizeBytes(raw) / kGrainBytes / grains;
        BareFile const file(raw, BareFile::Mode::Update);
        std::vector<unsigned char> content =
            randomBytes(kGrainBytes, static_cast<unsigned int>(link + 1));
        for (long long i = 0; i < grains; ++i) {
            content[0] = static_cast<unsigned char>(i);
            file.write(content.data(), kGrainBytes, (i * distance + link) * kGrainBytes);
        }
    }

    void copyLink() const {
        std::string const copy = m_folder / "copy";
        makeMemoryReady();
        runProgram({"cp", linkName(kLargeLink), copy});
        std::filesystem::remove(copy);
    }

    /// What it took; the chain is as before then.
    ProcessUse dropLink() const {
        std::filesystem::path const kept = m_folder / "kept";
        std::filesystem::create_directory(kept);
        std::vector<std::string> names;
        for (int const link : {kLargeLink, kLargeLink + 1}) {
            for (std::string const& name : {linkName(link), linkName(link) + ".digests"})
                names.push_back(name);
        }
        for (std::string const& name : names)
            std::filesystem::copy_file(name, kept / std::filesystem::path(name).filename());
        makeMemoryReady();
        // The copies, which are in a folder of their own, are no children.
        ProcessUse const use = runProgram({m_context.tool, "drop", linkName(kLargeLink)});
        for (std::string const& name : names) {
            std::filesystem::remove(name);
            std::filesystem::rename(kept / std::filesystem::path(name).filename(), name);
        }
        std::filesystem::remove(kept);
        return use;
    }

    ProcessUse mergeLinks() const {
        std::string const target = m_folder / "merged.vmdk";
        makeMemoryReady();
        ProcessUse const use = runProgram(
            {m_context.tool, "merge", linkName(kLargeLink - 1), linkName(kLargeLink + 1), target});
        std::filesystem::remove(target);
        std::filesystem::remove(target + ".digests");
        return use;
    }

    void addFigure(std::string const& name, char const* work, Measurements const& times,
                   double bytes) {
        m_context.report.addFigure({name, formatRate(bytes, times.median(work)),
                                    formatRate(bytes, times.median("copy")),
                                    times.ratio("copy", work), Aim::atLeast(0.8), ""});
    }

    Context& m_context;
    std::filesystem::path m_folder;
};

} // namespace

void measureThinning(Context& context) {
    ThinningBench(context, "").run("plain");
    ThinningBench(context, "--compressed").run("compressed");
}

} // namespace bench
