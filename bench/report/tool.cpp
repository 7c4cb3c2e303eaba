#include "bench/report/bench_context.h"
#include "bench/report/codec.h"
#include "bench/report/image.h"
#include "bench/report/machine.h"
#include "bench/report/measurements.h"
#include "bench/report/process.h"

// The program kelm as a user runs it, on an image of a file system.

namespace bench {

namespace {

constexpr double kMaxMemoryBytes = 128.0 * kMiB;
constexpr char kDeviceDecides[] = "the device decides; its speed varies from second to second";

/// One thing that is timed in each round: what it leaves is removed first.
struct Step {
    std::string name;
    std::vector<std::string> command;
    std::string target;
    bool syncsTarget = false;
};

class ToolBench {
public:
    explicit ToolBench(Context& context)
        : m_context(context),
          m_image(context.folder / "image.raw"),
          m_grains(readGrains(m_image)),
          m_codec(m_grains) {}

    void run() {
        std::vector<Step> const steps = makeSteps();
        for (int round = 0; round < m_context.rounds; ++round) {
            // The order turns, so that a device that slows down after a burst hits all alike.
            for (std::size_t i = 0; i < steps.size(); ++i)
                runStep(steps[(i + static_cast<std::size_t>(round)) % steps.size()]);
            m_times.time("compress", [this] { m_codec.compressAll(); });
            m_times.time("decompress", [this] { m_codec.decompressAll(); });
            m_times.time("compress on all cores", [this] { m_codec.compressAllOnAllCores(); });
            m_times.time("decompress on all cores", [this] { m_codec.decompressAllOnAllCores(); });
            m_times.time("encipher", [this] { encipherAll(); });
            writeCompressedBytes();
            if (!m_context.memoryFolder.empty()) {
                decompressToMemory();
                decompressToMemoryOnAllCores();
            }
        }
        addFigures();
        for (Step const& step : steps)
            std::filesystem::remove(step.target);
        settle(m_image);
    }

private:
    std::vector<Step> makeSteps() {
        std::string const copy = m_context.folder / "copy.raw";
        std::string const plain = m_context.folder / "plain.vmdk";
        std::string const compressed = m_context.folder / "compressed.vmdk";
        std::string const encrypted = m_context.folder / "encrypted.vmdk";
        std::string const converted = m_context.folder / "converted.vmdk";
        std::string const& tool = m_context.tool;
        // For the exports, which may come before the imports of their disks.
        runProgram({tool, "import", m_image, plain});
        runProgram({tool, "import", m_image, compressed, "--compressed"});
        std::string const plainMade = m_context.folder / "plain2.vmdk";
        std::string const compressedMade = m_context.folder / "compressed2.vmdk";
        std::vector<Step> steps = {
            {"copy", {"cp", "--sparse=always", m_image, copy}, copy, true},
            {"copy by dd",
             {"dd", "if=" + m_image, "of=" + copy, "bs=1M", "conv=fdatasync", "status=none"},
             copy},
            {"import", {tool, "import", m_image, plainMade}, plainMade},
            {"export", {tool, "export", plain, copy}, copy},
            {"encrypted import",
             {tool, "import", m_image, encrypted, "--encrypt", "--password-env", kPasswordVariable},
             encrypted},
            {"compressed import",
             {tool, "import", m_image, compressedMade, "--compressed"},
             compressedMade},
            {"compressed export", {tool, "export", compressed, copy}, copy},
            {"convert", {tool, "convert", compressed, converted, "--compressed"}, converted},
        };
        if (!m_context.memoryFolder.empty()) {
            std::string const inMemory = m_context.memoryFolder / "memory.vmdk";
            std::string const copyInMemory = m_context.memoryFolder / "memory.raw";
            std::string const plainInMemory = m_context.memoryFolder / "plain.vmdk";
            steps.push_back(
                {"copy in memory", {"cp", "--sparse=always", m_image, copyInMemory}, copyInMemory});
            steps.push_back(
                {"import in memory", {tool, "import", m_image, plainInMemory}, plainInMemory});
            steps.push_back(
                {"export in memory", {tool, "export", plain, copyInMemory}, copyInMemory});
            steps.push_back({"compressed import in memory",
                             {tool, "import", m_image, inMemory, "--compressed"},
                             inMemory});
            steps.push_back({"compressed export in memory",
                             {tool, "export", compressed, copyInMemory},
                             copyInMemory});
        }
        return steps;
    }

    void runStep(Step const& step) {
        removeAndSettle(step.target);
        m_times.time(step.name, [&] {
            ProcessUse const use = runProgram(step.command);
            m_memory.add(step.name, static_cast<double>(use.peakMemoryBytes));
            if (step.syncsTarget)
                BareFile(step.target, BareFile::Mode::Update).sync();
        });
        std::filesystem::remove(step.target);
    }

    void encipherAll() {
        for (yx::P<Buffer> const& grain : m_grains)
            m_cipher.encipher(grain->getData());
    }

    /// What the device needs for as many bytes as a compressed import gives it.
    void writeCompressedBytes() {
        std::string const path = m_context.folder / "bare.raw";
        std::vector<unsigned char> const bytes = randomBytes(kMiB);
        removeAndSettle(path);
        m_times.time("write compressed", [&] {
            BareFile const file(path, BareFile::Mode::New);
            for (long long position = 0;
                 static_cast<double>(position) < m_codec.getCompressedBytes(); position += kMiB)
                file.write(bytes.data(), kMiB, position);
            file.sync();
        });
        removeAndSettle(path);
    }

    /// What one thread needs to decompress all and write it to a file in memory.
    void decompressToMemory() {
        std::string const path = m_context.memoryFolder / "bare.raw";
        removeAndSettle(path);
        m_times.time("decompress and write", [&] {
            BareFile const file(path, BareFile::Mode::New);
            long long position = 0;
            m_codec.decompressAll([&](unsigned char const* grain) {
                file.write(grain, kGrainBytes, position);
                position += kGrainBytes;
            });
        });
        std::filesystem::remove(path);
    }

    /// The same by all cores to one file, which takes one write at a time.
    void decompressToMemoryOnAllCores() {
        std::string const path = m_context.memoryFolder / "bare.raw";
        removeAndSettle(path);
        m_times.time("decompress and write on all cores", [&] {
            BareFile const file(path, BareFile::Mode::New);
            m_codec.decompressAllOnAllCores([&](std::size_t index, unsigned char const* grain) {
                file.write(grain, kGrainBytes, static_cast<long long>(index) * kGrainBytes);
            });
        });
        std::filesystem::remove(path);
    }

    /// A time that should not exceed that of a copy.
    void addCopyFigure(char const* name, char const* step) {
        add(name, step, "copy", m_times.ratio(step, "copy"), Aim::atMost(1.05), kDeviceDecides);
    }

    /// The same without a device.
    void addMemoryCopyFigure(char const* name, char const* step) {
        add(name, step, "copy in memory", m_times.ratio(step, "copy in memory"), Aim::atMost(1.05),
            "new pages of memory decide; see docs/performance.md");
    }

    void add(std::string const& name, char const* step, char const* limit, double ratio, Aim aim,
             char const* reason) {
        double const bytes = m_codec.getPlainBytes();
        m_context.report.addFigure({name, formatRate(bytes, m_times.median(step)),
                                    formatRate(bytes, m_times.median(limit)), ratio, aim, reason});
    }

    void addCodecFigure(std::string const& name, std::string const& step, char const* codec,
                        char const* reason) {
        int const cores = coreCount();
        double const bytes = m_codec.getPlainBytes();
        m_context.report.addFigure(
            {name, formatRate(bytes, m_times.median(step)),
             format("%d × %s", cores, formatRate(bytes, m_times.median(codec)).c_str()),
             m_times.ratio(codec, step) / cores, Aim::atLeast(0.88), reason});
    }

    /// Against the coder alone on all cores at once.
    void addAllCoresFigure(std::string const& name, std::string const& step, char const* codec) {
        double const bytes = m_codec.getPlainBytes();
        m_context.report.addFigure({name, formatRate(bytes, m_times.median(step)),
                                    formatRate(bytes, m_times.median(codec)),
                                    m_times.ratio(codec, step), Aim::none(), ""});
    }

    void addFigures() {
        m_context.report.addText(
            format("Image: %s of data, compressed to %s. The limit of plain transfers is `cp "
                   "--sparse=always` and a sync of that file; a ratio of times, so less is better.",
                   formatBytes(m_codec.getPlainBytes()).c_str(),
                   formatBytes(m_codec.getCompressedBytes()).c_str()));
        addCopyFigure("plain import, time of a copy", "import");
        addCopyFigure("plain export, time of a copy", "export");
        addCopyFigure("compressed export, time of a copy", "compressed export");
        add("plain export, speed of `dd bs=1M conv=fdatasync`", "export", "copy by dd",
            m_times.ratio("copy by dd", "export"), Aim::atLeast(1.0), kDeviceDecides);
        add("compressed export, speed of `dd bs=1M conv=fdatasync`", "compressed export",
            "copy by dd", m_times.ratio("copy by dd", "compressed export"), Aim::atLeast(1.0),
            kDeviceDecides);
        bool const copyIsSlower = m_times.median("copy") > m_times.median("encipher");
        char const* const slower = copyIsSlower ? "copy" : "encipher";
        add(std::string("encrypted plain import, speed of the slower of cipher and copy (here: ") +
                (copyIsSlower ? "copy)" : "cipher)"),
            "encrypted import", slower, m_times.ratio(slower, "encrypted import"),
            Aim::atLeast(0.80), "");
        char const* const kDevice = "includes waiting until the device has all; in memory, below, "
                                    "nobody waits";
        addCodecFigure("compressed import, cores × codec", "compressed import", "compress",
                       kDevice);
        addCodecFigure("compressed export, cores × codec", "compressed export", "decompress",
                       "new pages of memory decide, which a file gets one after the other; in "
                       "memory, below, they are ready");
        if (!m_context.memoryFolder.empty()) {
            addMemoryCopyFigure("plain import to memory, time of a copy", "import in memory");
            addMemoryCopyFigure("plain export to memory, time of a copy", "export in memory");
            addCodecFigure("compressed import to memory, cores × codec",
                           "compressed import in memory", "compress",
                           "see docs/performance.md, compressed transfers");
            addAllCoresFigure("compressed import to memory, and the codec on all cores at once",
                              "compressed import in memory", "compress on all cores");
            addCodecFigure("compressed export to memory, cores × codec",
                           "compressed export in memory", "decompress",
                           "giving the plain bytes to the system takes as much processor time as "
                           "decoding them; see the next line");
            addAllCoresFigure("compressed export to memory, and the codec on all cores at once",
                              "compressed export in memory", "decompress on all cores");
            addCodecFigure("compressed export to memory, cores × (codec and `pwrite`)",
                           "compressed export in memory", "decompress and write",
                           "see docs/performance.md, compressed transfers");
            addAllCoresFigure("compressed export to memory, and codec and `pwrite` on all cores at "
                              "once to one file",
                              "compressed export in memory", "decompress and write on all cores");
        }
        add("compressed import, speed of writing and syncing the compressed bytes alone",
            "compressed import", "write compressed",
            m_times.ratio("write compressed", "compressed import"), Aim::none(), "");
        add("convert, compressed to compressed, and of writing the compressed bytes", "convert",
            "write compressed", m_times.ratio("write compressed", "convert"), Aim::none(), "");
        for (char const* const step : {"import", "export", "compressed import", "compressed export",
                                       "encrypted import", "convert"}) {
            m_context.report.addFigure(
                {std::string("peak memory, ") + step, formatBytes(m_memory.median(step)),
                 formatBytes(kMaxMemoryBytes), m_memory.median(step) / kMaxMemoryBytes,
                 Aim::atMost(1.0), ""});
        }
    }

    Context& m_context;
    std::string m_image;
    std::vector<yx::P<Buffer>> m_grains;
    BareCodec m_codec;
    BareCipher m_cipher;
    Measurements m_times;
    Measurements m_memory;
};

} // namespace

void measureTool(Context& context) {
    ToolBench(context).run();
}

} // namespace bench
