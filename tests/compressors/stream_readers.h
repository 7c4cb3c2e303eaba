#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

/// A library that reads zlib streams, called directly.
struct StreamReader {
    std::string name;

    /// What the stream holds, at most `roomBytes`. Throws `std::runtime_error` on what it cannot
    /// read.
    std::function<test_support::Bytes(test_support::Bytes const& stream, std::size_t roomBytes)>
        read;
};

/// zlib, and of libdeflate, ISA-L and miniz those that this machine has.
std::vector<StreamReader> const& streamReaders();
