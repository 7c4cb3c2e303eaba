#pragma once

#include <memory>

#include "tests/support/foreign_disk_model.h"

namespace test_support {

/// Zeros, text, noise, or zeros with a byte here and there.
Bytes drawForeignContent(std::mt19937& random, __int64 sizeBytes);

/// A stretch of a disk.
struct ForeignRange {
    __int64 position;
    __int64 sizeBytes;
};

/// Draws one that begins within a grain or at the start of one, and reaches up to several grains
/// and extents on.
ForeignRange drawForeignRange(std::mt19937& random, ForeignDiskModel const& model);

/// A chain of foreign disks with their files, filled through the library alone, as other software
/// might have done it. What each of its disks must read as is known.
class FilledForeignChain {
public:
    /// Draws the chain and makes its files in `folder`, all from `seed`.
    FilledForeignChain(yx::IFileSystem& files, yx::CURI const& folder, unsigned int seed);

    /// The oldest disk first.
    std::size_t getLength() const { return m_models.size(); }
    ForeignDisk const& disk(std::size_t level) const { return m_models[level]->disk(); }
    ForeignDiskModel const& model(std::size_t level) const { return *m_models[level]; }
    Bytes const& content(std::size_t level) const { return m_contents[level]; }

    /// What is drawn next depends on the seed too.
    std::mt19937& random() { return m_random; }

private:
    void fill(yx::IFileSystem& files, yx::CURI const& uri, ForeignDiskModel& model);

    std::mt19937 m_random;
    std::vector<std::unique_ptr<ForeignDiskModel>> m_models;
    std::vector<Bytes> m_contents;
};

/// One line for each disk, for the messages of tests.
std::ostream& operator<<(std::ostream& stream, FilledForeignChain const& chain);

} // namespace test_support
