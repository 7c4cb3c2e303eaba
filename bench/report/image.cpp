#include "bench/report/image.h"

#include <fcntl.h>
#include <unistd.h>

#include "bench/report/process.h"
#include "bench/report/report.h"
#include "host/transfer/raw_source.h"

namespace bench {

namespace {

/// Where a file has so many bytes that are no hole, or -1 if it has fewer.
long long findEndOfData(std::string const& path, long long dataBytes) {
    int const file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    long long found = 0;
    long long end = 0;
    while (found < dataBytes) {
        off_t const begin = ::lseek(file, end, SEEK_DATA);
        if (begin < 0)
            break;
        end = ::lseek(file, begin, SEEK_HOLE);
        found += end - begin;
    }
    ::close(file);
    return found < dataBytes ? -1 : (end - (found - dataBytes)) / kGrainBytes * kGrainBytes;
}

} // namespace

void makeImage(std::string const& path, std::filesystem::path const& content, long long dataBytes,
               std::filesystem::path const& scratchFolder) {
    std::string const whole = scratchFolder / "whole.raw";
    runProgram({"mke2fs", "-q", "-F", "-t", "ext4", "-d", content, whole, "16G"});
    long long const end = findEndOfData(whole, dataBytes);
    if (end < 0)
        fail(content.string() + " holds less than " + formatBytes(static_cast<double>(dataBytes)) +
             "; name a fuller folder");
    std::filesystem::resize_file(whole, static_cast<std::uintmax_t>(end));
    runProgram({"cp", "--sparse=always", whole, path});
    std::filesystem::remove(whole);
    settle(path);
}

std::vector<yx::P<Buffer>> readGrains(std::string const& path, std::size_t limit) {
    std::vector<yx::P<Buffer>> grains;
    kelm::host::RawSource source(path);
    while (grains.size() < limit) {
        yx::P<Buffer> const grain = yx::makeObject<Buffer>(kGrainBytes, -1);
        bool isHole = false;
        int const count = source.readNext(grain->getData(), kGrainBytes, isHole);
        if (count == 0)
            break;
        if (!isHole && count == kGrainBytes && !yx::isAllZero(grain->getData(), kGrainBytes))
            grains.push_back(grain);
    }
    return grains;
}

} // namespace bench
