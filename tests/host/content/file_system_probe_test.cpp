// File systems as their own programs make them.

#include "host/content/file_system_probe.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "host/system/file_descriptor.h"
#include "tests/host/content/bytes_in_memory.h"
#include "tests/support/expect_error.h"
#include "tests/support/temp_directory.h"

namespace content_test {
namespace {

using kelm::host::canProbeFileSystems;
using kelm::host::FileSystem;
using kelm::host::probeFileSystem;
using test_support::Bytes;

/// A file from one place on.
class BytesOfFile : public kelm::host::ByteSource {
public:
    explicit BytesOfFile(std::string const& path)
        : m_file(kelm::host::FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_CLOEXEC))),
          m_sizeBytes(static_cast<__int64>(std::filesystem::file_size(path))) {}

    __int64 getSizeBytes() const override { return m_sizeBytes; }

    void read(__int64 positionBytes, unsigned char* data, int bytes) override {
        EXPECT_EQ(bytes,
                  ::pread(m_file.get(), data, static_cast<std::size_t>(bytes), positionBytes));
        readBytes += bytes;
    }

    __int64 readBytes = 0;

private:
    kelm::host::FileDescriptor m_file;
    __int64 m_sizeBytes;
};

class FileSystemProbe : public testing::Test {
protected:
    void SetUp() override {
        if (!canProbeFileSystems())
            GTEST_SKIP() << "This build has no libblkid.";
    }

    std::string path() const { return (m_folder.path() / "image").string(); }

    static std::string programOf(std::string const& command) {
        return command.substr(0, command.find(' '));
    }

    /// False if the program is not there.
    bool make(std::string const& command, std::string const& sizeBytes) const {
        std::string const paths = "PATH=\"$PATH:/usr/sbin:/sbin\"; ";
        if (std::system((paths + "command -v " + programOf(command) + " >/dev/null").c_str()) != 0)
            return false;
        std::filesystem::remove(path());
        std::string const line = paths + "truncate -s " + sizeBytes + " '" + path() + "' && " +
                                 command + " '" + path() + "' >/dev/null 2>&1";
        EXPECT_EQ(0, std::system(line.c_str())) << command;
        return true;
    }

private:
    test_support::TempDirectory m_folder;
};

struct Made {
    char const* command;
    char const* sizeBytes;
    char const* type;
    char const* usage;
    char const* label;

    /// "" where it cannot be chosen.
    char const* uuid;
};

constexpr char kUUID[] = "11111111-2222-4333-8444-555555555555";

constexpr Made kMade[] = {
    {"mke2fs -q -t ext2 -L label2 -U 11111111-2222-4333-8444-555555555555", "8M", "ext2",
     "filesystem", "label2", kUUID},
    {"mke2fs -q -t ext4 -L label4 -U 11111111-2222-4333-8444-555555555555", "3T", "ext4",
     "filesystem", "label4", kUUID},
    {"mkswap -L exchange -U 11111111-2222-4333-8444-555555555555", "8M", "swap", "other",
     "exchange", kUUID},
    {"mkfs.fat -F 12 -n TWELVE -i 1234abcd", "2M", "vfat", "filesystem", "TWELVE", "1234-ABCD"},
    {"mkfs.fat -F 16 -n SIXTEEN -i 1234abcd", "16M", "vfat", "filesystem", "SIXTEEN", "1234-ABCD"},
    {"mkfs.fat -F 32 -n THIRTY -i 1234abcd", "64M", "vfat", "filesystem", "THIRTY", "1234-ABCD"},
    // The tables of clusters take 32 MiB, and the root folder lies behind them.
    {"mkfs.fat -F 32 -s 1 -n FAR -i 1234abcd", "2G", "vfat", "filesystem", "FAR", "1234-ABCD"},
    {"mkfs.exfat -L wide", "1G", "exfat", "filesystem", "wide", ""},
    {"mkntfs -q -F -Q -L windows", "1G", "ntfs", "filesystem", "windows", ""},
    {"mkfs.xfs -q -L crossed -m uuid=11111111-2222-4333-8444-555555555555", "1G", "xfs",
     "filesystem", "crossed", kUUID},
    {"mkfs.btrfs -q -L trees -U 11111111-2222-4333-8444-555555555555", "1G", "btrfs", "filesystem",
     "trees", kUUID},
};

TEST_F(FileSystemProbe, FindsTypeLabelAndUUID) {
    for (Made const& made : kMade) {
        SCOPED_TRACE(made.command);
        if (!make(made.command, made.sizeBytes)) {
            std::printf("left out, since it is not there: %s\n", programOf(made.command).c_str());
            continue;
        }
        BytesOfFile bytes(path());
        std::optional<FileSystem> const found = probeFileSystem(bytes, 0, bytes.getSizeBytes());
        ASSERT_TRUE(found);
        EXPECT_EQ(made.type, found->type);
        EXPECT_EQ(made.usage, found->usage);
        EXPECT_EQ(made.label, found->label);
        if (*made.uuid != 0)
            EXPECT_EQ(made.uuid, found->uuid);
        else
            EXPECT_NE("", found->uuid);
        EXPECT_LE(bytes.readBytes, 28 << 20);
    }
}

TEST_F(FileSystemProbe, LooksAtTheRangeAlone) {
    if (!make("mke2fs -q -t ext2 -L mine", "8M"))
        GTEST_SKIP() << "There is no mke2fs.";
    Bytes content(8 << 20);
    BytesOfFile(path()).read(0, content.data(), static_cast<int>(content.size()));
    Bytes const disk = test_support::concat(
        {test_support::pattern(5000, 1), content, test_support::pattern(3 << 20, 2)});
    BytesInMemory bytes(disk);
    std::optional<FileSystem> const found = probeFileSystem(bytes, 5000, 8 << 20);
    ASSERT_TRUE(found);
    EXPECT_EQ("mine", found->label);
    EXPECT_FALSE(probeFileSystem(bytes, 4999, 8 << 20));
}

TEST_F(FileSystemProbe, WhatIsNothingKnownIsNothing) {
    for (std::size_t const sizeBytes : {0, 511, 512, 1 << 20, 12 << 20}) {
        SCOPED_TRACE(sizeBytes);
        Bytes const zeros(sizeBytes);
        BytesInMemory ofZeros(zeros);
        EXPECT_FALSE(probeFileSystem(ofZeros, 0, ofZeros.getSizeBytes()));
        Bytes const noise = test_support::pattern(sizeBytes, 3);
        BytesInMemory ofNoise(noise);
        EXPECT_FALSE(probeFileSystem(ofNoise, 0, ofNoise.getSizeBytes()));
    }
}

TEST_F(FileSystemProbe, WhatMayBeTwoThingsHasNoName) {
    constexpr std::size_t kSizeBytes = 8 << 20;
    Bytes linuxBytes(kSizeBytes);
    Bytes both(kSizeBytes);
    if (!make("mke2fs -q -t ext2", "8M"))
        GTEST_SKIP() << "There is no mke2fs.";
    BytesOfFile(path()).read(0, linuxBytes.data(), static_cast<int>(kSizeBytes));
    // Nothing uses the sectors behind the first.
    if (!make("mkfs.fat -F 16 -s 1 -R 8", "8M"))
        GTEST_SKIP() << "There is no mkfs.fat.";
    BytesOfFile(path()).read(0, both.data(), static_cast<int>(kSizeBytes));
    std::copy_n(linuxBytes.begin() + 1024, 1024, both.begin() + 1024);
    BytesInMemory bytes(both);
    std::optional<FileSystem> const found = probeFileSystem(bytes, 0, bytes.getSizeBytes());
    ASSERT_TRUE(found);
    EXPECT_EQ("", found->type);
}

TEST_F(FileSystemProbe, CanBeCancelled) {
    kelm::host::CancelFlag cancel;
    cancel.set();
    Bytes const content(1 << 20);
    BytesInMemory bytes(content);
    EXPECT_THROW(probeFileSystem(bytes, 0, bytes.getSizeBytes(), &cancel),
                 kelm::host::CancelledError);
}

TEST(FileSystemProbeThatIsMissing, SaysWhatTheBuildLacks) {
    if (canProbeFileSystems())
        GTEST_SKIP() << "This build has libblkid.";
    Bytes const content(1 << 20);
    BytesInMemory bytes(content);
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::NotSupported,
        "This build of kelm cannot tell file systems: it was made without libblkid.", {},
        [&] { probeFileSystem(bytes, 0, bytes.getSizeBytes()); }));
}

} // namespace
} // namespace content_test
