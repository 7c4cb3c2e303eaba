#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"
#include "yx/memory_file_system.h"
#include "yx/native_file_system.h"

/// The file systems of the framework, each empty, for tests of what they have in common.
namespace file_system_backends {

struct Native {
    static constexpr char kStreamClass[] = "CNativeFileStream";
    static constexpr long long kLongLengthBytes = 2LL << 40;

    test_support::TempDirectory directory;
    yx::P<yx::IFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();

    /// Of a file right below the folder of the test; `name` is not escaped.
    yx::CURI uri(std::string const& name) const { return directory.uri(name); }

    /// So that names may lead through it.
    void makeFolder(std::string const& name) const {
        std::filesystem::create_directory(directory.path() / name);
    }
};

struct NativeToSystem : Native {
    NativeToSystem() { files = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem); }
};

struct Memory {
    static constexpr char kStreamClass[] = "CMemoryFileStream";
    static constexpr long long kLongLengthBytes = 2LL << 40;

    yx::P<yx::IFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();

    yx::CURI uri(std::string const& name) const {
        return yx::CURI("mem:/disks/") << yx::String::fromUTF8(name);
    }

    /// There are none, and none are needed.
    void makeFolder(std::string const&) const {}
};

} // namespace file_system_backends

/// All file systems, for tests of what they have in common, and those that differ in how they lock. A
/// program that has the tests run on others names a header with its own types.
#ifdef KELM_FILE_SYSTEM_BACKENDS
#include KELM_FILE_SYSTEM_BACKENDS
#else
using FileSystemBackends =
    testing::Types<file_system_backends::Native, file_system_backends::NativeToSystem,
                   file_system_backends::Memory>;
using LockFileBackends = testing::Types<file_system_backends::Native, file_system_backends::Memory>;
using LockFileMeetingBackends = LockFileBackends;
#endif
