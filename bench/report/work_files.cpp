#include "bench/report/work_files.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "bench/report/process.h"

namespace bench {

namespace {

[[noreturn]] void failAt(std::string const& path) {
    fail(path + ": " + std::strerror(errno));
}

int flagsOf(BareFile::Mode mode) {
    switch (mode) {
    case BareFile::Mode::Read:
        return O_RDONLY;
    case BareFile::Mode::Update:
        return O_RDWR;
    case BareFile::Mode::New:
        break;
    }
    return O_WRONLY | O_CREAT | O_TRUNC;
}

} // namespace

BareFile::BareFile(std::string const& path, Mode mode)
    : m_descriptor(::open(path.c_str(), flagsOf(mode) | O_CLOEXEC, 0600)) {
    if (m_descriptor < 0)
        failAt(path);
}

BareFile::~BareFile() {
    ::close(m_descriptor);
}

void BareFile::read(void* target, long long bytes, long long position) const {
    if (::pread(m_descriptor, target, static_cast<std::size_t>(bytes), position) != bytes)
        failAt("pread");
}

void BareFile::write(void const* source, long long bytes, long long position) const {
    if (::pwrite(m_descriptor, source, static_cast<std::size_t>(bytes), position) != bytes)
        failAt("pwrite");
}

void BareFile::sync() const {
    if (::fdatasync(m_descriptor) != 0)
        failAt("fdatasync");
}

void makeMemoryReady() {
    constexpr std::size_t kBytes = std::size_t{1} << 30;
    void* const memory = ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                                MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory != MAP_FAILED)
        ::munmap(memory, kBytes);
}

void settle(std::string const& path) {
    int const folder = ::open(std::filesystem::path(path).parent_path().c_str(),
                              O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0 || ::syncfs(folder) != 0)
        failAt(path);
    ::close(folder);
    makeMemoryReady();
}

void removeAndSettle(std::string const& path) {
    std::filesystem::remove(path);
    settle(path);
}

long long fileSizeBytes(std::string const& path) {
    return static_cast<long long>(std::filesystem::file_size(path));
}

yx::CURI uriOf(std::string const& path) {
    return yx::CURI(yx::TPathImpl<yx::CUnixPathTraits>(path.c_str(), true, false), false);
}

yx::P<yx::CNativeFileSystem> nativeFiles(bool toDevice) {
    return yx::makeObject<yx::CNativeFileSystem>(toDevice ? yx::NativeFlush::ToDevice
                                                          : yx::NativeFlush::ToSystem);
}

yx::P<kelm::CVMDKDisk> openDisk(std::string const& path, yx::IIOStream::Access access,
                                char const* password, bool toDevice) {
    return yx::makeObject<kelm::CVMDKDisk>(nativeFiles(toDevice).get(), uriOf(path), access,
                                           password, -1, nullptr, nullptr);
}

yx::P<kelm::CVMDKDisk> createDisk(std::string const& path, long long sizeBytes,
                                  DiskKind const& kind, bool toDevice) {
    std::filesystem::remove(path);
    return kelm::CVMDKDisk::create(nativeFiles(toDevice).get(), uriOf(path), sizeBytes,
                                   kind.password, kind.compressed, -1, kind.fileSizeLimitBytes, "",
                                   kelm::kNoParentContentID, false);
}

void makeFullDisk(std::string const& path, long long sizeBytes, char const* password) {
    std::vector<unsigned char> const bytes = randomBytes(kMiB);
    yx::P<kelm::CVMDKDisk> const disk = createDisk(path, sizeBytes, {.password = password}, false);
    for (long long position = 0; position < sizeBytes; position += kMiB)
        disk->write(bytes.data(), kMiB);
    disk->flushChanges();
    settle(path);
}

std::vector<unsigned char> randomBytes(long long count, unsigned int seed) {
    std::mt19937_64 random(seed);
    std::vector<unsigned char> bytes(static_cast<std::size_t>(count));
    for (std::size_t i = 0; i + 8 <= bytes.size(); i += 8) {
        unsigned long long const word = random();
        std::memcpy(bytes.data() + i, &word, 8);
    }
    return bytes;
}

std::vector<long long> randomGrains(int howMany, long long count) {
    std::mt19937_64 random(7);
    std::vector<long long> grains;
    for (int i = 0; i < howMany; ++i)
        grains.push_back(static_cast<long long>(random() % static_cast<unsigned long long>(count)));
    return grains;
}

void writeGrains(kelm::CVMDKDisk& disk, std::vector<yx::P<Buffer>> const& grains) {
    disk.seek(0);
    for (yx::P<Buffer> const& grain : grains)
        disk.write(grain->getData(), grain->getUsed());
}

} // namespace bench
