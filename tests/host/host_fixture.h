#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

#include "host/transfer/transfer.h"
#include "tests/support/extent_checker.h"
#include "tests/support/safe_disks.h"
#include "tests/support/temp_directory.h"

namespace test_support {

/// Disks in memory, as hosts use them, and images in a folder of the system.
class HostTest : public DiskTest {
protected:
    yx::P<FileGuard> makeGuard(bool overwrite = false) {
        return yx::makeObject<FileGuard>(files.get(), overwrite);
    }

    /// Makes a disk that stays.
    std::unique_ptr<SafeDisk> createSafe(DiskKind const& kind,
                                         std::string const& name = "disk.vmdk",
                                         std::string const& parent = "",
                                         __int64 sizeBytes = kSmallestDiskBytes) {
        NewDisk request = requestFor(kind, sizeBytes);
        if (!parent.empty())
            request.parent = uriOf(parent);
        yx::P<FileGuard> const guard = makeGuard();
        guard->keep();
        return SafeDisk::create(guard.get(), uriOf(name), request);
    }

    std::unique_ptr<SafeDisk> openSafe(std::string const& name = "disk.vmdk",
                                       yx::IIOStream::Access access = kReadWrite,
                                       char const* password = "") {
        return std::make_unique<SafeDisk>(files.get(), uriOf(name), access, password);
    }

    static void writeTo(SafeDisk& disk, __int64 position, Bytes const& bytes) {
        disk.write(position, bytes.data(), static_cast<int>(bytes.size()));
    }

    static Bytes readFrom(SafeDisk& disk, __int64 position, std::size_t count) {
        Bytes bytes(count);
        disk.read(position, bytes.data(), static_cast<int>(count));
        return bytes;
    }

    /// What the disk reads as once it has been closed and opened again.
    Bytes contentAfterReopening(std::string const& name = "disk.vmdk", char const* password = "") {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        return readFrom(*disk, 0, static_cast<std::size_t>(disk->getSizeBytes()));
    }

    /// How many grains the disk's own files hold; every file must be sound.
    std::size_t countStoredGrains(std::string const& name = "disk.vmdk",
                                  char const* password = "") {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        yx::TArray<yx::P<kelm::CVMDKExtentInfo>> infos;
        disk->getDisk().getDescriptor()->getExtentEntries(infos);
        std::size_t count = 0;
        std::uint64_t startGrain = 0;
        for (yx::P<kelm::CVMDKExtentInfo> const& info : infos) {
            yx::CURI const uri = uriOf(info->getFilename().toStdString());
            if (files->fileExists(uri)) {
                ExtentReport const report = checkExtent(files->getFile(uri), startGrain);
                EXPECT_EQ("", report.text()) << uri;
                count += report.grains.size();
            }
            startGrain += static_cast<std::uint64_t>(info->getSizeSectors() * 512 / kGrainBytes);
        }
        return count;
    }

    /// A child of "parent.vmdk" of 300 sectors, which are two grains and a part of one.
    void putShortChild(bool compressed = false) {
        putExtent("child-s00000.vmdk", 3, 128, compressed);
        unsigned int const parentID =
            openSafe("parent.vmdk", kReadOnly)->getDisk().getDescriptor()->getContentID();
        std::ostringstream text;
        text << "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID="
             << std::hex << parentID
             << "\nparentFileNameHint=\"parent.vmdk\"\ncreateType=\"twoGbMaxExtentSparse\"\n"
                "RW 300 SPARSE \"child-s00000.vmdk\"\n"
             << std::string(600, '\0');
        putText("child.vmdk", text.str());
    }

    /// Puts an image in the folder; grains of zeros become holes.
    std::string putImage(std::string const& name, Bytes const& content) {
        std::string const path = pathOf(name);
        std::ofstream file(path, std::ios::binary);
        for (std::size_t at = 0; at < content.size(); at += kGrainBytes) {
            Bytes const part = slice(content, at, kGrainBytes);
            if (yx::isAllZero(part.data(), part.size()))
                continue;
            file.seekp(static_cast<std::streamoff>(at));
            file.write(reinterpret_cast<char const*>(part.data()),
                       static_cast<std::streamsize>(part.size()));
        }
        file.close();
        std::filesystem::resize_file(path, content.size());
        return path;
    }

    static Bytes readImage(std::string const& path) {
        Bytes content(std::filesystem::file_size(path));
        std::ifstream(path, std::ios::binary)
            .read(reinterpret_cast<char*>(content.data()),
                  static_cast<std::streamsize>(content.size()));
        return content;
    }

    std::string pathOf(std::string const& name) { return folder.path() / name; }

    TempDirectory folder;
};

/// Data of all sorts for the start of a disk: text, noise, zeros in holes, a zero grain between, a
/// grain with a single byte, and an end within a grain.
inline Bytes mixedContent(std::size_t sizeBytes = 1200000, unsigned int seed = 1) {
    Bytes content = zeros(sizeBytes);
    auto const put = [&content](std::size_t at, Bytes const& bytes) {
        for (std::size_t i = 0; i < bytes.size() && at + i < content.size(); ++i)
            content[at + i] = bytes[i];
    };
    put(0, textPattern(150000, seed));
    put(4 * 65536, pattern(65536, seed + 1));
    put(6 * 65536 + 65535, Bytes{7});
    put(10 * 65536 + 100, textPattern(70000, seed + 2));
    put(sizeBytes - 20000, pattern(20000, seed + 3));
    return content;
}

/// Filled up with zeros.
inline Bytes padded(Bytes content, __int64 sizeBytes) {
    content.resize(static_cast<std::size_t>(sizeBytes), 0);
    return content;
}

} // namespace test_support
