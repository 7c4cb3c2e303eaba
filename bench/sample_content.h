#pragma once

#include <cstddef>
#include <iterator>
#include <random>
#include <string>
#include <vector>

namespace bench {

// Content of grains, the same every time.

/// Words that compress as text does.
inline std::vector<unsigned char> makeText(std::size_t sizeBytes) {
    static char const* const kWords[] = {"grain ",  "table ", "of ",       "the ",    "disk\n",
                                         "backup",  " and ",  "sector",    " writes", " number ",
                                         "entry, ", "reads ", "of a file", " 4096\n", "(zero)"};
    std::mt19937 random(1);
    std::vector<unsigned char> text;
    while (text.size() < sizeBytes) {
        std::string const word = kWords[random() % std::size(kWords)];
        text.insert(text.end(), word.begin(), word.end());
    }
    text.resize(sizeBytes);
    return text;
}

/// Bytes that do not compress.
inline std::vector<unsigned char> makeRandom(std::size_t sizeBytes) {
    std::mt19937 random(1);
    std::vector<unsigned char> bytes(sizeBytes);
    for (unsigned char& byte : bytes)
        byte = static_cast<unsigned char>(random());
    return bytes;
}

} // namespace bench
