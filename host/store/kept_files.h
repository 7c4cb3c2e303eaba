#pragma once

#include <vector>

#include "host/store/store.h"

namespace kelm::host {

/// Files of a store that are about to be replaced, kept under second names in a folder
/// of their own until what replaces them is complete. Whoever fails meanwhile puts them back, and
/// whoever is killed leaves them there whole.
///
/// The folder lies beside the first file and has its name and ".former", or that with a number
/// behind it if there is such a folder.
class KeptFiles {
public:
    /// Gives each file, all of one folder, its second name, and brings these to the device. The
    /// first names stay where the file system has hard links, and go where it has none.
    ///
    /// Throws what the store makes of a failure, and leaves the files under their first
    /// names.
    explicit KeptFiles(std::vector<yx::CURI> const& files);
    KeptFiles(KeptFiles const&) = delete;
    KeptFiles& operator=(KeptFiles const&) = delete;

    /// Puts the files back under their first names, unless `drop` was called: the first one last,
    /// and only then the second names go. A name that another file has by now stays that file's;
    /// then the folder stays, and a warning names it.
    ~KeptFiles();

    /// Deletes the second names, since what replaced the files is complete, once all that was done
    /// under the first names is on the device: until then a power cut could bring some of the files
    /// back. Where that fails, the second names stay. What cannot be done is logged as a warning.
    void drop();

    /// The folders that were left beside a file: of a program that was killed, or that is at work.
    static std::vector<yx::CURI> findFoldersOf(yx::CURI const& file);

private:
    struct File {
        yx::CURI first;
        yx::CURI second;
    };

    void keep(yx::CURI const& file);
    bool isSameFileOf(File const& file) const;
    bool tryRestore(File const& file) const;
    bool tryRestoreAll() const;
    void removeSecondNames() const;

    yx::P<IStore> m_store;
    yx::CURI m_parent;
    yx::CURI m_folder;
    std::vector<File> m_files;
    bool m_isDropped = false;
};

} // namespace kelm::host
