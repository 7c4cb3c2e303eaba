#pragma once

#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"
#include "yx/memory_file_system.h"
#include "yx/native_file_system.h"

/// The file systems of the framework, each empty, for tests of what they have in common.
namespace file_system_backends {

struct Native {
    static constexpr char kStreamClass[] = "CNativeFileStream";

    test_support::TempDirectory directory;
    yx::P<yx::IFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();

    /// Of a file right below the folder of the test; `name` is not escaped.
    yx::CURI uri(std::string const& name) const { return directory.uri(name); }
};

struct NativeToSystem : Native {
    NativeToSystem() { files = yx::makeObject<yx::CNativeFileSystem>(yx::NativeFlush::ToSystem); }
};

struct Memory {
    static constexpr char kStreamClass[] = "CMemoryFileStream";

    yx::P<yx::IFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();

    yx::CURI uri(std::string const& name) const {
        return yx::CURI("mem:/disks/") << yx::String::fromUTF8(name);
    }
};

} // namespace file_system_backends
