#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "yx/buffer.h"
#include "yx/error.h"

namespace kelm::fuzz {

// What all targets share. A target refuses bad input by errors of the `yx::CError` family alone:
// any other exception leaves it and ends the run as a crash does.

using Bytes = std::span<std::uint8_t const>;

/// Ends the run as a crash does, naming `rule`, unless `holds`.
void require(bool holds, char const* rule);

/// Sends log entries and the exceptions of destructors nowhere, since damaged input logs much.
void silenceLog();

/// A copy of the bytes.
yx::TBuffer<unsigned char> toBuffer(Bytes bytes);

/// The text of the bytes, by the rules of `yx::String::fromUTF8`.
yx::String toText(Bytes bytes);

/// An input of two texts with a line feed between them; without one, the second is empty.
struct TwoTexts {
    yx::String first;
    yx::String second;
};
TwoTexts toTwoTexts(Bytes bytes);

/// Runs a step and returns whether it was done; false where it was refused by an error.
template <class Step>
bool attempt(Step const& step) {
    try {
        step();
        return true;
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

/// Cuts an input into numbers and pieces from its front. Behind the end all numbers are 0.
class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) : m_rest(data, size) {}

    bool isEmpty() const { return m_rest.empty(); }

    std::uint8_t takeByte() {
        Bytes const byte = takeBytes(1);
        return byte.empty() ? std::uint8_t{0} : byte[0];
    }

    /// Little-endian.
    std::uint32_t takeNumber(int sizeBytes) {
        std::uint32_t value = 0;
        for (int i = 0; i < sizeBytes; ++i)
            value |= std::uint32_t{takeByte()} << 8 * i;
        return value;
    }

    /// Fewer at the end.
    Bytes takeBytes(std::size_t count) {
        Bytes const taken = m_rest.first(count < m_rest.size() ? count : m_rest.size());
        m_rest = m_rest.subspan(taken.size());
        return taken;
    }

    Bytes takeAll() { return takeBytes(m_rest.size()); }

private:
    Bytes m_rest;
};

} // namespace kelm::fuzz
