#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "yx/buffer.h"

namespace kelm::fuzz {

/// A file of a disk, and its name as `getFileURI` numbers them.
struct MadeFile {
    std::uint8_t nameIndex;
    yx::TBuffer<unsigned char> content;
};

/// A small disk and its parents. The disk's main file has the name 0.
struct MadeDisk {
    std::string name;
    std::string descriptorText;
    std::vector<MadeFile> files;
};

/// One disk of every kind, the same every time.
std::vector<MadeDisk> makeDisks();

/// An input of fuzz_grain.
struct MadeRecord {
    std::string name;
    std::vector<std::uint8_t> input;
};

/// Stored grains of every kind, and content to be stored.
std::vector<MadeRecord> makeRecords();

} // namespace kelm::fuzz
