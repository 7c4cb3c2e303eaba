#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "yx/buffer.h"

namespace test_support {

/// What a walk over the bytes of a sparse extent file found. It shares no code with the library: it
/// reads the header, the directories, the tables, the slots and the trail from the bytes alone.
struct ExtentReport {
    struct Slot {
        std::uint64_t posSectors;
        std::uint64_t sizeSectors;
    };

    /// One line for each rule that the file breaks; empty for a sound file.
    std::vector<std::string> findings;

    bool compressed = false;
    bool enciphered = false;
    std::uint64_t capacitySectors = 0;
    std::uint64_t grainSizeSectors = 0;
    std::uint64_t overheadSectors = 0;

    /// The stored grains, by their index in the extent.
    std::map<std::uint64_t, Slot> grains;

    /// All findings in one text, for a test's message.
    std::string text() const;
};

/// Checks that live slots lie behind the metadata, inside the file and apart from each other, that
/// the redundant directory and tables equal the main ones but for where they lie, that the records
/// of a compressed extent fit their slots and name their grain, and that the trail closes the file.
/// `startGrainIndex` is the extent's place in its disk, which the records count from.
ExtentReport checkExtent(yx::TBuffer<unsigned char> const& file, std::uint64_t startGrainIndex = 0);

} // namespace test_support
