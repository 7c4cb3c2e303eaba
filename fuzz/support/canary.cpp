#include "fuzz/support/canary.h"

#include <algorithm>

#include "fuzz/support/disk_input.h"

namespace kelm::fuzz {

namespace {

/// A folder above, one beside, and one whose name begins alike.
constexpr char const* kFolders[] = {"mem:///", "mem:///canary/", "mem:///disks-canary/"};

bool isOutside(yx::CURI const& uri) {
    return uri.getParent().toNormalized() != getFileURI(0).getParent().toNormalized();
}

bool isEqual(yx::TBuffer<unsigned char> const& left, yx::TBuffer<unsigned char> const& right) {
    return std::equal(left.getData(), left.getData() + left.getUsed(), right.getData(),
                      right.getData() + right.getUsed());
}

} // namespace

Canary::Canary(yx::CMemoryFileSystem& files) : m_files(files) {
    for (yx::CURI const& uri : files.listFiles()) {
        // A lock file beside a parent may be taken over, and then goes with its user.
        if (uri.getExtension() == ".lock")
            continue;
        for (char const* const folder : kFolders)
            files.putFile(yx::CURI(folder) << uri.getName(), files.getFile(uri));
    }
    m_before = collect();
}

Canary::Files Canary::collect() const {
    Files files;
    for (yx::CURI const& uri : m_files.listFiles()) {
        if (isOutside(uri))
            files.emplace(uri.toString(true), m_files.getFile(uri));
    }
    return files;
}

void Canary::verifyUntouched() const {
    Files const now = collect();
    require(std::equal(now.begin(), now.end(), m_before.begin(), m_before.end(),
                       [](auto const& left, auto const& right) {
                           return left.first == right.first && isEqual(left.second, right.second);
                       }),
            "no file outside of the disk's folder is made, changed or deleted");
}

} // namespace kelm::fuzz
