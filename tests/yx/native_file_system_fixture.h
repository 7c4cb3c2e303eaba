#pragma once

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

/// Files of the operating system in a folder of the test's own.
class NativeFileSystemFixture : public testing::Test {
protected:
    yx::P<yx::IIOStream> open(yx::CURI const& uri,
                              yx::IIOStream::Access access = yx::IIOStream::ReadWrite) {
        unsigned int reserved = 0;
        return files->openFile(uri, access, &reserved);
    }

    yx::P<yx::IIOStream> open(std::string const& name,
                              yx::IIOStream::Access access = yx::IIOStream::ReadWrite) {
        return open(directory.uri(name), access);
    }

    std::string text(std::string const& name) const {
        return directory.uri(name).toString(true).toStdString();
    }

    std::filesystem::path path(std::string const& name) const { return directory.path() / name; }

    test_support::TempDirectory directory;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
};
