#include "tests/soak/program/disk_kind.h"

#include "tests/soak/program/shared_model.h"

namespace soak {

namespace {

constexpr __int64 kNoLimit = -1;

// Small enough to split the disk into several files.
constexpr __int64 kSplitLimit = 3 << 20;
constexpr __int64 kCompressedSplitLimit = 8000000;

constexpr char kPassword[] = "soak";

} // namespace

std::vector<DiskKind> const& allDiskKinds() {
    static std::vector<DiskKind> const kinds = {
        {"plain"},
        {"compressed", true},
        {"split", false, "", kSplitLimit},
        {"compressed split", true, "", kCompressedSplitLimit},
        {"encrypted", false, kPassword},
        {"compressed encrypted", true, kPassword},
        {"child", false, "", kNoLimit, false, true},
        {"compressed child", true, "", kNoLimit, false, true},
        {"on-demand", false, "", kSplitLimit, true},
        {"compressed on-demand", true, "", kCompressedSplitLimit, true},
        {"encrypted split", false, kPassword, kSplitLimit},
        {"compressed encrypted split", true, kPassword, kCompressedSplitLimit},
        {"split child", false, "", kSplitLimit, false, true},
        {"compressed encrypted split child", true, kPassword, kCompressedSplitLimit, false, true},
        {"encrypted on-demand child", false, kPassword, kSplitLimit, true, true},
    };
    return kinds;
}

kelm::host::NewDisk toRequest(DiskKind const& kind) {
    kelm::host::NewDisk request;
    request.sizeBytes = __int64{kSectorCount} * kSectorSizeBytes;
    request.password = kind.password;
    request.compressed = kind.compressed;
    request.compressionLevel = 1;
    request.fileSizeLimitBytes = kind.fileSizeLimitBytes;
    request.createExtentFilesOnDemand = kind.createExtentFilesOnDemand;
    return request;
}

} // namespace soak
