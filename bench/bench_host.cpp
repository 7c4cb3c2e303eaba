// What whole transfers cost through host/, on an image of a real file system.
//
//   bench_host [folder of the files to put into the image] [scratch folder] [rounds]
//
// The image is made by `mke2fs -d` and is at least 500 MB. Everything is measured in one run, by the
// clock, since the device and several threads take part; each figure is the median of the rounds. A
// round takes the measures in turn, so that what else the machine does hits them alike.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bench/interleaved.h"
#include "host/transfer.h"
#include "krym/krym.h"

namespace {

using namespace kelm;
using Buffer = yx::TBuffer<unsigned char>;

constexpr int kGrainBytes = 65536;
constexpr __int64 kMinImageBytes = 500'000'000;
constexpr double kMaxCopyRatio = 1.10;
constexpr double kCodecShare = 0.85;
constexpr double kCipherShare = 0.80;

double secondsOf(std::function<void()> const& run) {
    auto const start = std::chrono::steady_clock::now();
    run();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void runCommand(std::string const& command) {
    if (std::system(command.c_str()) != 0) {
        std::fprintf(stderr, "failed: %s\n", command.c_str());
        std::exit(1);
    }
}

/// The grains of the image that hold data.
std::vector<yx::P<Buffer>> readGrains(std::string const& image) {
    std::vector<yx::P<Buffer>> grains;
    host::RawSource source(image);
    while (true) {
        yx::P<Buffer> const grain = yx::makeObject<Buffer>(kGrainBytes, -1);
        bool isHole = false;
        int const count = source.readNext(grain->getData(), kGrainBytes, isHole);
        if (count == 0)
            return grains;
        if (!isHole && count == kGrainBytes && !yx::isAllZero(grain->getData(), kGrainBytes))
            grains.push_back(grain);
    }
}

class Bench {
public:
    Bench(std::string const& image, std::filesystem::path const& folder)
        : m_image(image),
          m_folder(folder),
          m_files(yx::makeObject<yx::CNativeFileSystem>()),
          m_imageBytes(static_cast<__int64>(std::filesystem::file_size(image))),
          m_grains(readGrains(image)),
          m_preparer(kGrainBytes / 512, true, -1) {
        for (yx::P<Buffer> const& grain : m_grains) {
            yx::P<Buffer> const aux = yx::makeObject<Buffer>();
            m_prepared.push_back(m_preparer.prepareGrainData(grain.get(), 0, aux.get()));
        }
    }

    double dataMegabytes() const {
        return static_cast<double>(m_grains.size()) * kGrainBytes / 1e6;
    }

    void runRound() {
        measure("cp", [this] {
            runCommand("cp --sparse=always " + m_image + " " + path("copy.raw"));
            runCommand("sync " + path("copy.raw"));
        });
        measure("plain import", [this] { import(false, ""); });
        measure("plain export", [this] { exportDisk(""); });
        measure("encrypted import", [this] { import(false, "password"); });
        measure("compressed import", [this] { import(true, ""); });
        measure("compressed export", [this] { exportDisk(""); });
        measure("compress", [this] { compressAlone(); });
        measure("decompress", [this] { decompressAlone(); });
        measure("cipher", [this] { encipherAlone(); });
    }

    double of(char const* name) { return bench::median(m_seconds[name]); }

private:
    std::string path(char const* name) const { return m_folder / name; }

    void measure(char const* name, std::function<void()> const& run) {
        std::filesystem::remove(path("copy.raw"));
        m_seconds[name].push_back(secondsOf(run));
    }

    void import(bool compressed, char const* password) {
        yx::P<host::FileGuard> const guard = yx::makeObject<host::FileGuard>(m_files.get(), true);
        guard->keep();
        host::NewDisk request;
        request.sizeBytes = m_imageBytes;
        request.password = password;
        request.compressed = compressed;
        std::unique_ptr<host::SafeDisk> const disk =
            host::SafeDisk::create(guard.get(), diskURI(), request);
        host::RawSource source(m_image);
        host::importRaw(source, *disk, {});
    }

    void exportDisk(char const* password) {
        host::SafeDisk disk(m_files.get(), diskURI(), yx::IIOStream::ReadOnly, password);
        host::RawTarget target(path("copy.raw"), false);
        host::exportRaw(disk, target, {});
    }

    yx::CURI diskURI() const {
        return yx::CURI(yx::TPathImpl<yx::CUnixPathTraits>(path("disk.vmdk").c_str(), true, false),
                        false);
    }

    void compressAlone() {
        Buffer aux;
        for (yx::P<Buffer> const& grain : m_grains)
            m_preparer.prepareGrainData(grain.get(), 0, &aux);
    }

    void decompressAlone() {
        Buffer aux;
        for (yx::P<Buffer> const& record : m_prepared)
            m_preparer.unprepareGrainData(record.get(), &aux);
    }

    void encipherAlone() {
        krym::CCipher_AES256CBC cipher;
        yx::TCryptBuffer<unsigned char> key(cipher.getKeySize(), -1);
        yx::initMemory(key.getData(), 1, static_cast<std::size_t>(key.getUsed()));
        unsigned char const iv[16] = {};
        Buffer target;
        for (yx::P<Buffer> const& grain : m_grains)
            cipher.encrypt(key, grain->getData(), kGrainBytes, target, false, iv);
    }

    std::string m_image;
    std::filesystem::path m_folder;
    yx::P<yx::CNativeFileSystem> m_files;
    __int64 m_imageBytes;
    std::vector<yx::P<Buffer>> m_grains;
    std::vector<yx::P<Buffer>> m_prepared;
    CVMDKDataPreparer m_preparer;
    std::map<std::string, std::vector<double>> m_seconds;
};

void print(Bench& bench) {
    double const cores = std::max(1U, std::thread::hardware_concurrency());
    double const megabytes = bench.dataMegabytes();
    for (char const* const name :
         {"cp", "plain import", "plain export", "encrypted import", "compressed import",
          "compressed export", "compress", "decompress", "cipher"})
        bench::note(name, megabytes / bench.of(name), "MB/s");
    bench::reportAtMost("plain import, time of cp and sync",
                        bench.of("plain import") / bench.of("cp"), kMaxCopyRatio);
    bench::reportAtMost("plain export, time of cp and sync",
                        bench.of("plain export") / bench.of("cp"), kMaxCopyRatio);
    bench::report("compressed import, speed of cores x codec",
                  bench.of("compress") / cores / bench.of("compressed import"), kCodecShare, "x");
    bench::report("compressed export, speed of cores x codec",
                  bench.of("decompress") / cores / bench.of("compressed export"), kCodecShare, "x");
    bench::report("encrypted import, speed of the slower of cipher and cp",
                  std::max(bench.of("cipher"), bench.of("cp")) / bench.of("encrypted import"),
                  kCipherShare, "x");
}

/// Makes the image, larger than its content, and returns its path.
std::string makeImage(std::string const& content, std::filesystem::path const& folder) {
    std::string const image = folder / "image.raw";
    runCommand("mke2fs -q -F -t ext4 -d " + content + " " + image + " 6G");
    struct stat status = {};
    if (::stat(image.c_str(), &status) != 0 || status.st_blocks * 512LL < kMinImageBytes) {
        std::fprintf(stderr, "%s holds less than 500 MB\n", content.c_str());
        std::exit(1);
    }
    return image;
}

} // namespace

int main(int argc, char** argv) {
    std::string const content = argc > 1 ? argv[1] : "/usr/share";
    std::string parent = argc > 2 ? argv[2] : std::filesystem::temp_directory_path();
    int const rounds = argc > 3 ? std::max(1, std::atoi(argv[3])) : 5;
    parent += "/bench_host.XXXXXX";
    if (!::mkdtemp(parent.data())) {
        std::perror(parent.c_str());
        return 1;
    }
    {
        Bench bench(makeImage(content, parent), parent);
        std::printf("%.0f MB of data, %d rounds\n", bench.dataMegabytes(), rounds);
        for (int i = 0; i < rounds; ++i)
            bench.runRound();
        print(bench);
    }
    std::filesystem::remove_all(parent);
    return 0;
}
