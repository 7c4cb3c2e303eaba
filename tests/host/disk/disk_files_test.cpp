#include "host/disk/disk_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include "host/store/file_names.h"
#include "tests/host/host_fixture.h"

using kelm::host::FileUse;
using kelm::host::isDiskMainFile;
using kelm::host::measureFile;

namespace test_support {
namespace {

class DiskFilesTest : public HostTest {
protected:
    std::string put(std::string const& content) {
        std::ofstream(pathOf("file"), std::ios::binary) << content;
        return pathOf("file");
    }
};

TEST_F(DiskFilesTest, MainFilesAreToldByTheirStart) {
    struct Case {
        std::string content;
        bool isMainFile;
    };
    for (Case const& c : {
             Case{"KDMV", true},
             Case{std::string("\x45\x4B\x64\x05", 4), true},
             Case{"# Disk DescriptorFile\nversion=1\ncreateType=\"monolithicSparse\"\n", true},
             Case{"CREATETYPE = \"x\"", true},
             Case{"# Disk DescriptorFile\n" + std::string(4000, '#') + "\ncreateType=\"x\"", true},
             Case{"", false},
             Case{"KDM", false},
             Case{"VMDK", false},
             Case{"plain text", false},
             Case{std::string("\0createType", 11), false},
             Case{std::string(4096, '\0'), false},
         }) {
        EXPECT_EQ(c.isMainFile, isDiskMainFile(put(c.content))) << c.content.substr(0, 30);
    }
}

TEST_F(DiskFilesTest, WhatIsNoReadableFileIsNoMainFile) {
    EXPECT_FALSE(isDiskMainFile(pathOf("none")));
    EXPECT_FALSE(isDiskMainFile(folder.path()));
    EXPECT_FALSE(isDiskMainFile("/dev/zero"));
    // Nobody writes to it, and nobody may wait for that.
    ASSERT_EQ(0, ::mkfifo(pathOf("pipe").c_str(), 0600));
    EXPECT_FALSE(isDiskMainFile(pathOf("pipe")));
}

TEST_F(DiskFilesTest, LengthCountsHolesAndTheAllocationDoesNot) {
    put(std::string(4096, 'x'));
    std::filesystem::resize_file(pathOf("file"), std::uintmax_t{1} << 30);
    FileUse const use = measureFile(kelm::host::uriFromArgument(pathOf("file")));
    EXPECT_TRUE(use.exists);
    EXPECT_EQ(1 << 30, use.lengthBytes);
    EXPECT_LE(use.allocatedBytes, 1 << 20);
    EXPECT_FALSE(measureFile(kelm::host::uriFromArgument(pathOf("none"))).exists);
}

} // namespace
} // namespace test_support
