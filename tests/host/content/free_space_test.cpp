// What may be left out of an image: the file systems stay sound, and all files equal.

#include "host/content/free_space.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/temp_directory.h"

namespace content_test {
namespace {

using kelm::host::findFreeSpace;
using kelm::host::FoundFreeSpace;
using kelm::host::Stretch;
using test_support::Bytes;

class FreeSpaceOfImage : public testing::Test {
protected:
    void SetUp() override {
        if (!kelm::host::canFindFreeSpace())
            GTEST_SKIP() << "This build has no libext2fs.";
        if (!runShell("command -v mke2fs && command -v debugfs && command -v e2fsck"))
            GTEST_SKIP() << "mke2fs, debugfs or e2fsck is missing.";
    }

    std::string path(std::string const& name) const { return (m_folder.path() / name).string(); }

    bool runShell(std::string const& line) const {
        std::string const command = "cd '" + m_folder.path().string() +
                                    "' && PATH=\"$PATH:/usr/sbin:/sbin\" && { " + line +
                                    "; } > words 2>&1";
        return std::system(command.c_str()) == 0;
    }

    std::string words() const { return readText("words"); }

    std::string readText(std::string const& name) const {
        std::ifstream stream(path(name), std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    }

    void writeText(std::string const& name, std::string const& text) const {
        std::ofstream(path(name), std::ios::binary) << text;
    }

    /// Files of many sizes, of which each second one is deleted again, on what was full of noise.
    void makeImage(std::string const& options, std::size_t sizeBytes) const {
        writeText("image", test_support::toText(test_support::pattern(sizeBytes, 7)));
        std::filesystem::create_directory(path("files"));
        for (unsigned i = 0; i < 40; ++i) {
            writeText("files/f" + std::to_string(i),
                      test_support::toText(test_support::pattern(std::size_t{3000} * i + i, i)));
        }
        std::string deletion;
        for (unsigned i = 0; i < 40; i += 2)
            deletion += "rm f" + std::to_string(i) + "\n";
        writeText("deletion", deletion);
        ASSERT_TRUE(runShell("mke2fs -q -F " + options +
                             " -E nodiscard -d files image && debugfs -w -f deletion image && "
                             "e2fsck -fn image"))
            << words();
    }

    /// Makes all that is free noise, or zeros, in a copy, and returns how many bytes that were.
    __int64 exclude(FoundFreeSpace const& found, bool asNoise) const {
        std::string image = readText("image");
        __int64 freeBytes = 0;
        Stretch rest{0, static_cast<__int64>(image.size())};
        for (Stretch free = found.space->findFree(rest); !free.isEmpty();
             free = found.space->findFree(rest)) {
            EXPECT_GE(free.startBytes, rest.startBytes);
            EXPECT_LE(free.endBytes, rest.endBytes);
            auto const begin = image.begin() + free.startBytes;
            auto const end = image.begin() + free.endBytes;
            if (asNoise)
                std::fill(begin, end, 'x');
            else
                std::fill(begin, end, '\0');
            freeBytes += free.endBytes - free.startBytes;
            rest.startBytes = free.endBytes;
        }
        writeText("copy", image);
        return freeBytes;
    }

    void expectFilesInCopy() const {
        EXPECT_TRUE(runShell("e2fsck -fn copy")) << words();
        std::filesystem::remove_all(path("out"));
        std::filesystem::create_directory(path("out"));
        EXPECT_TRUE(runShell("debugfs -R 'rdump / out' copy")) << words();
        for (unsigned i = 1; i < 40; i += 2) {
            std::string const name = "f" + std::to_string(i);
            EXPECT_TRUE(readText("files/" + name) == readText("out/" + name)) << name;
            EXPECT_FALSE(std::filesystem::exists(path("out/f" + std::to_string(i - 1))));
        }
    }

private:
    test_support::TempDirectory m_folder;
};

TEST_F(FreeSpaceOfImage, HoldsNothingThatAFileSystemNeeds) {
    for (char const* const options : {
             "-t ext2 -b 1024",
             "-t ext2 -b 4096 -g 8192",
             "-t ext3 -b 1024 -J size=4",
             "-t ext4 -b 1024",
             "-t ext4 -b 4096",
             "-t ext4 -b 1024 -O ^metadata_csum,uninit_bg",
             "-t ext4 -b 1024 -O metadata_csum,64bit",
             "-t ext4 -b 1024 -O meta_bg,^resize_inode -g 1024",
             "-t ext4 -b 1024 -O ^flex_bg -g 2048",
             "-t ext4 -b 1024 -O bigalloc -C 16384",
             "-t ext4 -b 4096 -O bigalloc,metadata_csum -C 65536",
             "-t ext4 -b 4096 -O inline_data,sparse_super2",
         }) {
        SCOPED_TRACE(options);
        makeImage(options, std::size_t{12} << 20);
        FoundFreeSpace const found = findFreeSpace(path("image"));
        EXPECT_EQ(std::vector<std::string>(), found.refusals);
        ASSERT_TRUE(found.space);
        EXPECT_GT(exclude(found, false), 4 << 20);
        expectFilesInCopy();
        exclude(found, true);
        expectFilesInCopy();
    }
}

TEST_F(FreeSpaceOfImage, IsFoundInPartitions) {
    if (!runShell("command -v sfdisk"))
        GTEST_SKIP() << "sfdisk is missing.";
    makeImage("-t ext4 -b 1024", std::size_t{8} << 20);
    ASSERT_TRUE(runShell("mv image part && truncate -s 32M image && "
                         "printf 'label: gpt\\nstart=1MiB, size=8MiB\\nstart=9MiB, size=8MiB\\n"
                         "start=20MiB, size=8MiB\\n' | sfdisk -q image && "
                         "dd if=part of=image bs=1M seek=1 conv=notrunc && "
                         "dd if=part of=image bs=1M seek=20 conv=notrunc"))
        << words();
    FoundFreeSpace const found = findFreeSpace(path("image"));
    EXPECT_EQ(std::vector<std::string>(), found.refusals);
    ASSERT_TRUE(found.space);
    EXPECT_GT(exclude(found, true), 8 << 20);
    // What is in no file system of this kind is not free.
    Stretch const between{9 << 20, 20 << 20};
    EXPECT_TRUE(found.space->findFree(between).isEmpty());
    for (char const* const start : {"1", "20"}) {
        ASSERT_TRUE(runShell("mv copy whole && dd if=whole of=copy bs=1M count=8 skip=" +
                             std::string(start)));
        expectFilesInCopy();
        ASSERT_TRUE(runShell("mv whole copy"));
    }
}

TEST_F(FreeSpaceOfImage, OfWhatCannotBeTrustedIsRefused) {
    struct Case {
        char const* change;
        char const* reason;
    };
    constexpr Case kCases[] = {
        {"debugfs -w -R 'feature needs_recovery' image",
         "its journal needs recovery: it is mounted, or was not cleanly unmounted"},
        {"debugfs -w -R 'ssv state 0' image", "it is mounted, or was not cleanly unmounted"},
        {"debugfs -w -R 'ssv state 3' image", "it has errors on record, which e2fsck mends"},
        {"debugfs -w -R 'ssv free_blocks_count 5' image",
         "its bitmap does not agree with its count of free blocks"},
        {"truncate -s 7M image", "it is larger than what holds it"},
    };
    for (Case const& one : kCases) {
        SCOPED_TRACE(one.change);
        makeImage("-t ext4 -b 1024 -O ^metadata_csum", std::size_t{8} << 20);
        ASSERT_TRUE(runShell(one.change)) << words();
        FoundFreeSpace const found = findFreeSpace(path("image"));
        EXPECT_FALSE(found.space);
        EXPECT_EQ(
            std::vector<std::string>{
                "The free blocks of the file system on the image are not left out: " +
                std::string(one.reason) + "."},
            found.refusals);
    }
}

TEST_F(FreeSpaceOfImage, OfADamagedBitmapIsRefused) {
    makeImage("-t ext4 -b 1024 -O metadata_csum", std::size_t{8} << 20);
    ASSERT_TRUE(runShell("dumpe2fs image | grep -m1 -o 'Block bitmap at [0-9]*'")) << words();
    std::string const said = words();
    std::size_t const number = said.rfind("at ");
    ASSERT_NE(std::string::npos, number) << said;
    std::string image = readText("image");
    image.at(std::stoul(said.substr(number + 3)) * 1024 + 500) ^= 1;
    writeText("image", image);
    FoundFreeSpace const found = findFreeSpace(path("image"));
    EXPECT_FALSE(found.space);
    EXPECT_EQ(
        std::vector<std::string>{
            "The free blocks of the file system on the image are not left out: its bitmap "
            "cannot be read or fails its checksum."},
        found.refusals);
}

TEST_F(FreeSpaceOfImage, OfWhatIsNoneOfTheseIsNotKnown) {
    for (std::size_t const sizeBytes : {0, 1000, 4 << 20}) {
        writeText("image", test_support::toText(test_support::pattern(sizeBytes, 3)));
        FoundFreeSpace const found = findFreeSpace(path("image"));
        EXPECT_FALSE(found.space);
        EXPECT_EQ(std::vector<std::string>(), found.refusals);
    }
}

} // namespace
} // namespace content_test
