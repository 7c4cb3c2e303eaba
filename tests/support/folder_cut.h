#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace test_support {

/// Files by their paths below a folder.
using FolderImage = std::map<std::string, Bytes>;

/// All of a file that is there.
Bytes readFileContent(std::filesystem::path const& file);

/// The files of a folder and of the folders in it.
FolderImage imageOf(std::filesystem::path const& folder);

/// Makes an empty folder hold these files.
void putImage(std::filesystem::path const& folder, FolderImage const& image);

/// Rebuilds the states in which a folder can be found after the power was cut while a program
/// worked in it, from the operations that the library file_log has written down (`FileLogRecord`).
///
/// What is there for certain:
///
/// - The folder as it was when this object was made.
/// - The content of a file that was synced, as it was then, and the names of a folder that was
///   synced, as they were then.
///
/// What came later is there in any part: of each name any meaning that it had since, and of each
/// file any of the changes since, of a write any of its sectors of 512 bytes. A file that was
/// renamed has one of the two names.
class FolderCut {
public:
    /// How much of what no sync covers is there.
    enum class Loss {
        Everything,     ///< nothing is there
        Nothing,        ///< all is there
        LastOperations, ///< only the first few operations, in their order
        AnyOperations,  ///< any of them, and any sectors
    };

    /// One state of the first two kinds is all there is; of the others, several are drawn.
    static constexpr Loss kLosses[] = {
        Loss::Everything,    Loss::Nothing,       Loss::LastOperations, Loss::LastOperations,
        Loss::AnyOperations, Loss::AnyOperations, Loss::AnyOperations,  Loss::AnyOperations,
    };

    struct State {
        FolderImage files;

        /// Of each of them that was there before the program began, the path that it had then.
        std::map<std::string, std::string> formerPaths;

        /// Whether `makeState` made no such state before.
        bool isNew;
    };

    /// Before the program begins.
    explicit FolderCut(std::filesystem::path folder);
    ~FolderCut();

    /// After it has ended: its operations.
    void readLog(std::filesystem::path const& log);

    /// How many operations a log has.
    static int countOperations(std::filesystem::path const& log);

    /// Takes the next operation into account; false at the end.
    bool step();

    /// How many operations were taken.
    std::size_t operations() const { return m_next; }

    /// A state that a cut now could leave.
    State makeState(Loss loss, std::mt19937& random);

private:
    struct Operation;
    struct Change;
    struct File;
    struct Name;
    class Choice;

    /// Below the folder; "" for what lies elsewhere, and for the folder itself.
    std::string relative(std::string const& path) const;
    void setName(std::string const& path, int file);
    void syncNames(std::string const& folderPath);
    void rename(std::uint64_t inode, std::string const& from, std::string const& to);
    int makeFile(std::uint64_t inode, Bytes content, std::string const& formerPath);
    Bytes makeContent(File const& file, Choice& choice) const;

    std::filesystem::path m_folder;
    std::vector<Operation> m_operations;
    std::size_t m_next = 0;
    std::map<std::string, Name> m_names;
    std::vector<File> m_files;

    /// The present file of each inode.
    std::map<std::uint64_t, int> m_inodes;
    std::set<std::string> m_made;
};

} // namespace test_support
