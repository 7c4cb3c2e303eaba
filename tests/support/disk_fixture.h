#pragma once

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "kelm/kelm.h"
#include "tests/support/byte_builder.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace test_support {

/// What a test's disk is to be; the defaults make a single plain file.
struct DiskKind {
    char const* name = "single";
    bool compressed = false;
    __int64 fileSizeLimit = -1;
    char const* password = "";
    bool onDemand = false;
};

/// A small limit that splits a disk of 8 MiB into several extents.
constexpr __int64 kSplitLimit = 3 << 20;
constexpr __int64 kCompressedSplitLimit = 8000000;

/// Every kind of disk without a parent.
inline std::vector<DiskKind> allDiskKinds() {
    return {
        {"plain", false, -1, "", false},
        {"split", false, kSplitLimit, "", false},
        {"splitOnDemand", false, kSplitLimit, "", true},
        {"compressed", true, -1, "", false},
        {"compressedSplit", true, kCompressedSplitLimit, "", false},
        {"compressedSplitOnDemand", true, kCompressedSplitLimit, "", true},
        {"encrypted", false, -1, "secret", false},
        {"encryptedSplitOnDemand", false, kSplitLimit, "secret", true},
        {"encryptedCompressed", true, -1, "secret", false},
        {"encryptedCompressedSplit", true, kCompressedSplitLimit, "secret", false},
    };
}

/// One of these kinds.
inline DiskKind kindNamed(std::string const& name) {
    for (DiskKind const& kind : allDiskKinds()) {
        if (name == kind.name)
            return kind;
    }
    throw std::invalid_argument("no kind of disk: " + name);
}

constexpr __int64 kSmallestDiskBytes = 8388608;
constexpr __int64 kGrainBytes = 65536;
constexpr unsigned int kNoParentID = 0xFFFFFFFF;

/// Disks in memory.
class DiskTest : public testing::Test {
protected:
    static yx::CURI uriOf(std::string const& name) {
        return yx::CURI(yx::String::fromUTF8("mem:///disks/" + name));
    }

    yx::P<kelm::CVMDKDisk> create(DiskKind const& kind, std::string const& name = "disk.vmdk",
                                  __int64 sizeBytes = kSmallestDiskBytes,
                                  std::string const& parent = "",
                                  unsigned int parentContentID = kNoParentID) {
        return kelm::CVMDKDisk::create(
            files.get(), uriOf(name), sizeBytes, kind.password, kind.compressed, 1,
            kind.fileSizeLimit, yx::String::fromUTF8(parent), parentContentID, kind.onDemand);
    }

    yx::P<kelm::CVMDKDisk> open(yx::IIOStream::Access access = yx::IIOStream::ReadOnly,
                                char const* password = "", std::string const& name = "disk.vmdk") {
        return yx::makeObject<kelm::CVMDKDisk>(files.get(), uriOf(name), access, password, 1,
                                               nullptr, nullptr);
    }

    /// Puts a text descriptor in place.
    void putText(std::string const& name, std::string const& text) {
        files->putFile(uriOf(name), toBuffer(fromText(text)));
    }

    /// Puts an empty extent file in place.
    void putExtent(std::string const& name, __int64 grainCount, __int64 grainSizeSectors = 128,
                   bool compressed = false) {
        Buffer const zeroBuffer = toBuffer(zeros(65536));
        kelm::createEmptyVMDKSparseExtentFile(files.get(), uriOf(name), compressed, grainCount,
                                              grainSizeSectors, zeroBuffer, nullptr, 0, Buffer());
    }

    /// The text of a descriptor file up to its first zero byte.
    std::string textOf(std::string const& name) {
        std::string const text = toText(toBytes(files->getFile(uriOf(name))));
        return text.substr(0, text.find('\0'));
    }

    std::vector<std::string> fileNames() {
        std::vector<std::string> names;
        for (yx::CURI const& uri : files->listFiles())
            names.push_back(uri.getName().toStdString());
        return names;
    }

    static void writeAt(kelm::CVMDKDisk& disk, __int64 position, Bytes const& bytes) {
        disk.seek(position);
        disk.write(bytes.data(), static_cast<int>(bytes.size()));
    }

    static Bytes readAt(kelm::CVMDKDisk& disk, __int64 position, std::size_t count) {
        Bytes bytes(count);
        disk.seek(position);
        disk.read(bytes.data(), static_cast<int>(count));
        return bytes;
    }

    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
};

} // namespace test_support
