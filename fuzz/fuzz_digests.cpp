// Digest files. The first byte of an input says what is put right in the rest, so that inputs get
// past the digests over header and directory: 1 the root, 2 the directory's digest and the root,
// 3 those and the digest of the only section; anything else nothing.

#include "fuzz/support/harness.h"
#include "host/digest/digest_file.h"
#include "kelm/format/internal/little_endian.h"
#include "yx/memory_file_system.h"

namespace {

using namespace kelm;
using kelm::fuzz::attempt;
using kelm::fuzz::require;
using Buffer = yx::TBuffer<unsigned char>;

// Where things are that are put right; see `host::DigestHeader`.
constexpr int kDirectoryPositionAt = 56;
constexpr int kDirectoryDigestAt = 128;
constexpr int kRootAt = 480;
constexpr int kEntryDigestAt = 24;

void putDigest(Buffer& file, int startBytes, int endBytes, int at) {
    host::Digest const digest =
        host::DigestFileHasher({}).hash(file.getData() + startBytes, endBytes - startBytes);
    yx::copyMemory(file.getData() + at, digest.data(), digest.size());
}

void mend(Buffer& file, int how) {
    int const bytes = file.getUsed();
    if (how < 1 || how > 3 || bytes < host::DigestHeader::kSizeBytes)
        return;
    auto const position =
        loadLittleEndian<unsigned long long>(file.getData() + kDirectoryPositionAt);
    if (how >= 2 && position <= static_cast<unsigned long long>(bytes)) {
        auto const directory = static_cast<int>(position);
        if (how == 3 && bytes - directory >= host::DigestHeader::kDirectoryEntryBytes &&
            directory > host::DigestHeader::kSizeBytes)
            putDigest(file, host::DigestHeader::kSizeBytes, directory, directory + kEntryDigestAt);
        putDigest(file, directory, bytes, kDirectoryDigestAt);
    }
    putDigest(file, 0, kRootAt, kRootAt);
}

void readAll(host::DigestFile& file) {
    host::DigestHeader const& header = file.getHeader();
    require(header.imageSizeBytes <= header.diskSizeBytes, "an image is no larger than its disk");
    require(header.grainSizeBytes > 0, "a grain has a size");
    require(header.grainCount <= header.getDiskGrainCount(), "digests are those of grains");
    __int64 count = 0;
    __int64 next = 0;
    bool const isWhole = attempt([&] {
        for (__int64 grain = file.findNext(0); grain >= 0; grain = file.findNext(next)) {
            require(grain >= next, "grains come in order");
            require(file.find(grain).has_value(), "a grain that is found has a digest");
            next = grain + 1;
            ++count;
        }
    });
    require(!isWhole || count == header.grainCount, "a file that can be read has all its digests");
    attempt([&] { file.find(header.getDiskGrainCount()); });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    kelm::fuzz::silenceLog();
    kelm::fuzz::Input input(data, size);
    int const how = input.takeByte();
    Buffer content = kelm::fuzz::toBuffer(input.takeAll());
    mend(content, how);
    yx::P<yx::CMemoryFileSystem> const files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::CURI const uri("mem:///disk.vmdk.digests");
    files->putFile(uri, content);
    std::unique_ptr<host::DigestFile> file;
    attempt([&] { file = host::DigestFile::open(files.get(), uri, {}); });
    if (file)
        readAll(*file);
    return 0;
}
