#pragma once

#include <string>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/yx/file_system_backends.h"

/// Opens and makes files on the file system of a backend.
template <class Backend>
class FileSystemFixture : public testing::Test {
protected:
    yx::P<yx::IIOStream> open(std::string const& name, yx::IIOStream::Access access) {
        unsigned int reserved = 0;
        return files().openFile(backend.uri(name), access, &reserved);
    }

    yx::P<yx::IIOStream> make(std::string const& name, test_support::Bytes const& content) {
        yx::P<yx::IIOStream> stream = open(name, yx::IIOStream::ReadWrite);
        test_support::writeAt(*stream, 0, content);
        stream->seek(0);
        return stream;
    }

    yx::IFileSystem& files() { return *backend.files; }
    std::string text(std::string const& name) const {
        return backend.uri(name).toString(true).toStdString();
    }

    Backend backend;
};
