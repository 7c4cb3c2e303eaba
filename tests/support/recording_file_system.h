#pragma once

#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/hooked_file_system.h"

namespace test_support {

/// Wraps a file system and keeps one log, in order, of every operation on it and on all its
/// streams, by the kinds and words of `FileOperation`.
///
/// Typical use:
///
///     auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
///     ... work on files.get() ...
///     EXPECT_THAT(files->lines(kTransfers),
///                 ElementsAre("write a.vmdk 0+512", "flush a.vmdk"));
class RecordingFileSystem : public HookedFileSystem {
public:
    /// Whether entries keep what was written, to replay it.
    enum class Content {
        Forget,
        Keep,
    };

    struct Entry {
        FileOperation operation; ///< its pieces are gone
        bool failed;             ///< it threw
        Bytes content;           ///< what was written, if it is kept
    };

    explicit RecordingFileSystem(yx::IFileSystem* fileSystem, Content content = Content::Forget);

    std::vector<Entry> const& entries() const { return *m_entries; }

    /// The entries of these kinds as text, with " failed" behind those that failed; of one file
    /// (the last component of its URI) if `file` is not empty.
    std::vector<std::string> lines(FileOperationKinds const& kinds,
                                   std::string const& file = "") const;

    /// All entries as text.
    std::vector<std::string> lines() const;

    std::size_t count(FileOperationKinds const& kinds, std::string const& file = "") const;

    void clear() { m_entries->clear(); }

private:
    RecordingFileSystem(yx::IFileSystem* fileSystem, Content content,
                        std::shared_ptr<std::vector<Entry>> entries);

    std::shared_ptr<std::vector<Entry>> m_entries;
};

/// What moves or fixes bytes: `Read`, `Write`, `SetLength`, `Flush`.
extern FileOperationKinds const kTransfers;

/// What changes a file or makes it durable: `Write`, `SetLength`, `Flush`, `Delete`.
extern FileOperationKinds const kChanges;

/// Whether `first` stands in front of every `second` in these lines, and both are there. For
/// `EXPECT_TRUE`.
testing::AssertionResult comesBefore(std::vector<std::string> const& lines,
                                     std::string const& first, std::string const& second);

} // namespace test_support
