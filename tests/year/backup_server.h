#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/temp_directory.h"
#include "tests/year/server_image.h"
#include "tests/year/troubled_tool.h"
#include "yx/native_file_system.h"

namespace year_test {

/// How a server is backed up.
struct ServerKind {
    char const* name;

    /// The options of the first disk, and those of its children, which take turns.
    Arguments full;
    std::vector<Arguments> children;
    bool isEncrypted = false;
};

/// A server whose image is backed up every day, and what people do with its backups. Each of the
/// functions that do something looks, wherever it was struck, that kept days can be read: some of
/// them each time, and all once a week. In the end it looks that no file is there which nothing
/// explains. All of them use the program alone, but for looking, which would take too long by it.
class BackupServer {
public:
    /// `random` must outlive it.
    BackupServer(ServerKind const& kind, std::mt19937& random);

    /// The next day begins, and is backed up.
    void liveADay();

    /// Thins out by rules, and compares what stays with what these rules keep.
    void prune();

    /// Does the next of the things that are done now and then.
    void doNextChore();

    /// A sector of the newest backup is lost. It is noticed, and a copy takes the place of the disk.
    void loseDataSector();

    /// A sector of its metadata is lost. It is noticed and mended.
    void loseTableSector();

    void changePassword();

    /// The folder with all disks is moved, and a child that lies elsewhere is told.
    void moveFolder();

    /// Restores every kept day by the program, and looks at every file.
    void expectAllIsWell();

    std::map<std::string, TroubleCount> const& getCounts() const { return m_tool.getCounts(); }
    std::size_t countDays() const { return m_days.size(); }

private:
    struct Day {
        std::string digest;
        std::string file;

        /// The name that it gets at present.
        std::string nextFile = {};

        /// Whether it may be unreadable at present, since it is damaged.
        bool isDamaged = false;
    };

    void copyADay();
    void renameADay();
    void dropADay();
    void mergeDays();
    void rebaseADay();
    void flattenADay();
    void convertADay();
    void deleteADay();
    void digestADay();

    Task importTask(std::string const& file, Arguments const& options) const;
    Arguments withPassword(Arguments const& arguments) const;
    std::string diskName(std::string const& suffix) const;
    int drawDay(bool mayBeNewest);
    std::string parentOf(std::string const& file) const;
    std::vector<int> childrenOf(std::string const& file) const;
    bool dependsOn(std::string file, std::string const& parent) const;

    /// What was kept of a disk that a kill left as nothing yet is the user's to take away, who was
    /// warned of it.
    void removeFormer(std::string const& file) const;
    void deleteDisk(std::string const& file);

    /// What a disk reads as: the digest of its image, or the words of the error.
    std::string readDigest(std::string const& file) const;
    void expectReadable(int number);
    void expectSomeDaysAreReadable();
    void expectKeptDaysAreReadable();
    void expectHolds(std::string const& file, std::string const& digest);
    void expectNothingUnexplained(bool mayHaveLocks);
    std::set<int> daysByRules() const;
    std::string path(std::string const& file) const { return (m_folder / file).string(); }
    yx::CURI uri(std::string const& file) const;

    ServerKind m_kind;
    std::mt19937& m_random;
    test_support::TempDirectory m_root;
    std::filesystem::path m_folder;
    std::filesystem::path m_aside;
    TroubledTool m_tool;
    ServerImage m_image;
    yx::P<yx::CNativeFileSystem> m_files = yx::makeObject<yx::CNativeFileSystem>();

    /// Of the disks, below the folder.
    std::string m_disks = "disks";
    std::string m_password = "correct horse";
    std::string m_formerPassword;
    int m_today = -1;
    std::map<int, Day> m_days;
    std::size_t m_nextChore = 0;
    int m_names = 0;
};

} // namespace year_test
