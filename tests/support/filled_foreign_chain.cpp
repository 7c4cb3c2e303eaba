#include "tests/support/filled_foreign_chain.h"

#include <algorithm>

#include "kelm/kelm.h"
#include "tests/support/grain_contents.h"

namespace test_support {

namespace {

constexpr __int64 kFilledSectorBytes = 512;
constexpr unsigned int kMostWritesPerDisk = 12;

unsigned int below(std::mt19937& random, __int64 limit) {
    return static_cast<unsigned int>(random()) % static_cast<unsigned int>(limit);
}

} // namespace

Bytes drawForeignContent(std::mt19937& random, __int64 sizeBytes) {
    auto const size = static_cast<std::size_t>(sizeBytes);
    switch (below(random, 4)) {
    case 0:
        return zeros(size);
    case 1:
        return textPattern(size, below(random, 1000));
    case 2:
        return sparse(size, below(random, 1000));
    default:
        return pattern(size, below(random, 1000));
    }
}

ForeignRange drawForeignRange(std::mt19937& random, ForeignDiskModel const& model) {
    __int64 const total = model.disk().sizeBytes();
    __int64 position = below(random, total);
    __int64 const grainBytes =
        model.disk().extents[model.extentAt(position)].grainSizeSectors * kFilledSectorBytes;
    if (below(random, 2) == 0)
        position -= position % grainBytes;
    __int64 const sizes[] = {grainBytes, 1 + below(random, grainBytes),
                             1 + below(random, 3 * grainBytes),
                             model.bytesLeftInExtent(position) + below(random, 2 * grainBytes)};
    return {position, std::min(sizes[below(random, 4)], total - position)};
}

FilledForeignChain::FilledForeignChain(yx::IFileSystem& files, yx::CURI const& folder,
                                       unsigned int seed)
    : m_random(seed) {
    std::string parentName;
    std::optional<Bytes> parentContent;
    for (ForeignDisk const& disk : drawForeignChain(m_random)) {
        makeForeignDisk(files, folder, disk, parentName, kForeignPassword);
        m_models.push_back(std::make_unique<ForeignDiskModel>(disk, parentContent));
        fill(files, folder << yx::String::fromUTF8(disk.name), *m_models.back());
        parentName = disk.name;
        parentContent = m_models.back()->content();
        m_contents.push_back(*parentContent);
    }
}

void FilledForeignChain::fill(yx::IFileSystem& files, yx::CURI const& uri,
                              ForeignDiskModel& model) {
    kelm::CVMDKDisk disk(&files, uri, yx::IIOStream::ReadWrite, kForeignPassword, 1,
                         yx::makeObject<kelm::CVMDKGrainTableCache>(-1).get(), nullptr);
    for (unsigned int writes = below(m_random, kMostWritesPerDisk + 1); writes > 0; --writes) {
        ForeignRange const range = drawForeignRange(m_random, model);
        Bytes const bytes = drawForeignContent(m_random, range.sizeBytes);
        disk.seek(range.position);
        disk.write(bytes.data(), static_cast<int>(bytes.size()));
        model.write(range.position, bytes);
    }
    disk.flushChanges();
    model.reopen();
}

std::ostream& operator<<(std::ostream& stream, FilledForeignChain const& chain) {
    for (std::size_t level = 0; level < chain.getLength(); ++level)
        stream << "\n" << chain.disk(level);
    return stream;
}

} // namespace test_support
