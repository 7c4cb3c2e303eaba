#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"

namespace s3_test {

/// A disk `full.vmdk` and its child `child.vmdk`, in a folder of the operating system.
class LocalDisks {
public:
    /// Makes both of a kind.
    void make(test_support::DiskKind const& kind);

    std::filesystem::path const& getFolder() const { return m_folder.path(); }

    /// What the disks hold.
    std::string const& getFullImage() const { return m_fullImage; }
    std::string const& getChildImage() const { return m_childImage; }

    /// The files of the folder, by name.
    std::map<std::string, std::string> readFiles() const;

    static std::string readFile(std::filesystem::path const& path);

private:
    void makeDisk(char const* name, kelm::host::NewDisk const& request, int firstGrain,
                  std::string& image);

    test_support::TempDirectory m_folder;
    std::string m_fullImage;
    std::string m_childImage;
};

} // namespace s3_test
