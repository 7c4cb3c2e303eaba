#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/disk/safe_disk.h"
#include "kelm/kelm.h"

namespace bench {

constexpr int kGrainBytes = 65536;
constexpr long long kMiB = 1 << 20;
constexpr long long kGiB = 1 << 30;

using Buffer = yx::TBuffer<unsigned char>;

/// A file descriptor for the bare side of a comparison. What fails ends the program.
class BareFile {
public:
    enum class Mode { Read, Update, New };

    BareFile(std::string const& path, Mode mode);
    BareFile(BareFile const&) = delete;
    BareFile& operator=(BareFile const&) = delete;
    ~BareFile();

    void read(void* target, long long bytes, long long position) const;
    void write(void const* source, long long bytes, long long position) const;

    /// Waits until the data is on the device.
    void sync() const;

private:
    int m_descriptor;
};

/// Takes 1 GiB of memory and gives it back. Under a virtual machine, memory that was free for
/// seconds belongs to the machine below, and getting it again takes longer than writing to it;
/// without this, who writes first after a pause would pay for all.
void makeMemoryReady();

/// Removes a file, and settles.
void removeAndSettle(std::string const& path);

/// Waits until the device of the file system of `path` has nothing to do, and makes memory ready.
void settle(std::string const& path);

long long fileSizeBytes(std::string const& path);

yx::CURI uriOf(std::string const& path);

/// What disks are opened through. With `toDevice` a flush waits for the device.
yx::P<yx::CNativeFileSystem> nativeFiles(bool toDevice = true);

yx::P<kelm::CVMDKDisk> openDisk(std::string const& path, yx::IIOStream::Access access,
                                char const* password = "", bool toDevice = true);

struct DiskKind {
    bool compressed = false;
    char const* password = "";

    /// -1 for one file.
    long long fileSizeLimitBytes = -1;
};

/// A new, empty disk; whatever was of that name is gone.
yx::P<kelm::CVMDKDisk> createDisk(std::string const& path, long long sizeBytes,
                                  DiskKind const& kind = {}, bool toDevice = true);

/// A plain disk of that size with every grain filled with bytes that do not compress. The grains
/// lie in order at the end of the file.
void makeFullDisk(std::string const& path, long long sizeBytes, char const* password = "");

/// Bytes that do not compress; the same for the same seed.
std::vector<unsigned char> randomBytes(long long count, unsigned int seed = 1);

/// Positions of grains in random order, each somewhere in `count` grains.
std::vector<long long> randomGrains(int howMany, long long count);

/// Writes grains one behind the other from the start of the disk.
void writeGrains(kelm::CVMDKDisk& disk, std::vector<yx::P<Buffer>> const& grains);

} // namespace bench
