#include "tests/s3/local_disks.h"

#include <fstream>
#include <iterator>

#include "yx/native_file_system.h"

namespace s3_test {

namespace {

constexpr int kGrains =
    static_cast<int>(test_support::kSmallestDiskBytes / test_support::kGrainBytes);

} // namespace

void LocalDisks::make(test_support::DiskKind const& kind) {
    using namespace test_support;
    NewDisk request = requestFor(kind);
    m_fullImage.assign(static_cast<std::size_t>(kSmallestDiskBytes), '\0');
    makeDisk("full.vmdk", request, 0, m_fullImage);
    request.parent = m_folder.uri("full.vmdk");
    m_childImage = m_fullImage;
    makeDisk("child.vmdk", request, 1, m_childImage);
}

/// Writes to every third grain.
void LocalDisks::makeDisk(char const* name, kelm::host::NewDisk const& request, int firstGrain,
                          std::string& image) {
    using namespace test_support;
    yx::P<yx::CNativeFileSystem> const files = yx::makeObject<yx::CNativeFileSystem>();
    yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), false);
    guard->keep();
    std::unique_ptr<SafeDisk> const disk =
        SafeDisk::create(guard.get(), m_folder.uri(name), request);
    for (int grain = firstGrain; grain < kGrains; grain += 3) {
        Bytes const content = textPattern(kGrainBytes, static_cast<unsigned>(grain + 1000));
        writeGrain(*disk, grain, content);
        image.replace(static_cast<std::size_t>(grain) * kGrainBytes, kGrainBytes,
                      std::string(content.begin(), content.end()));
    }
}

std::map<std::string, std::string> LocalDisks::readFiles() const {
    std::map<std::string, std::string> files;
    for (auto const& entry : std::filesystem::directory_iterator(m_folder.path()))
        files[entry.path().filename().string()] = readFile(entry.path());
    return files;
}

std::string LocalDisks::readFile(std::filesystem::path const& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

} // namespace s3_test
