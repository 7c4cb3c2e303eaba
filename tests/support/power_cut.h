#pragma once

#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/recording_file_system.h"
#include "yx/memory_file_system.h"

namespace test_support {

/// Files by their URIs.
using FileImages = std::map<std::string, Bytes>;

/// The content of all files.
FileImages imagesOf(yx::CMemoryFileSystem& files);

/// Makes `files` hold these files and no others.
void putImages(yx::CMemoryFileSystem& files, FileImages const& images);

/// Rebuilds, from a record of what was done on a file system, the states in which the files can be
/// found after the power was cut.
///
/// What is there for certain:
///
/// - The files as they were at the start of the record.
/// - A finished `flush` of a stream covers its file, all that was written to it before by whatever
///   stream, its length included, and the file's own name. It does so only where the stream itself
///   has something to flush: it wrote, set the length or opened an empty file since its last flush.
///   Other files of the folder are not covered.
///
/// What came later is there in any part:
///
/// - Files that were made may be missing, and files that were deleted may be back.
/// - Of every sector of 512 bytes any content may be there that it had since the last flush; a
///   sector is never torn itself. Sectors of one write are independent of each other.
/// - The length may be any that the file had since then; what is missing in it reads as zeros.
///
/// Operations that failed did nothing. Barriers promise nothing.
class PowerCut {
public:
    /// How much of what no flush covers is there.
    enum class Loss {
        Everything,  ///< nothing is there
        Nothing,     ///< all is there
        OneChange,   ///< all but one change
        TornWrite,   ///< all, but only the first sectors of the last write
        LastChanges, ///< only the first few changes, in their order
        SomeChanges, ///< any changes
        AnySectors,  ///< any sectors of any change, and any length
    };

    static constexpr Loss kLosses[] = {
        Loss::Everything,  Loss::Nothing,     Loss::OneChange,  Loss::TornWrite,
        Loss::LastChanges, Loss::SomeChanges, Loss::AnySectors,
    };

    struct State {
        FileImages files;

        /// Whether `makeState` made no such state before.
        bool isNew;
    };

    PowerCut(FileImages start, std::vector<RecordingFileSystem::Entry> const& record);
    ~PowerCut();

    /// Takes the next operation of the record into account; false at its end.
    bool step();

    /// How many operations were taken.
    std::size_t operations() const { return m_next; }

    /// Whether the last operation changed what a power cut can leave.
    bool hasChanged() const { return m_hasChanged; }

    /// A state that a cut now could leave.
    State makeState(Loss loss, std::mt19937& random);

private:
    struct Change;
    struct File;
    struct Name;
    struct Opening;
    class Choice;

    void open(RecordingFileSystem::Entry const& entry);
    void write(RecordingFileSystem::Entry const& entry);
    void setLength(File& file, long long length);
    void flush(FileOperation const& operation);
    void remove(std::string const& uri);
    Bytes makeContent(File const& file, Choice& choice) const;

    std::vector<RecordingFileSystem::Entry> const& m_record;
    std::size_t m_next = 0;
    bool m_hasChanged = true;
    int m_fileCount = 0;
    int m_changeCount = 0;
    std::map<std::string, Name> m_names;
    std::map<int, Opening> m_openings;
    std::set<std::uint64_t> m_made;
};

} // namespace test_support
