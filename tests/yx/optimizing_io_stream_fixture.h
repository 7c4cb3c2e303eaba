#pragma once

#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"
#include "yx/memory.h"
#include "yx/optimizing_io_stream.h"

/// What the tests of the buffering layer have in common.
namespace optimizing_io_stream_fixture {

using test_support::Bytes;
using test_support::ScriptedStream;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;

inline constexpr int kKiB = 1024;
inline constexpr int kMiB = 1024 * 1024;

inline Bytes filled(int sizeBytes, unsigned char value) {
    return Bytes(static_cast<std::size_t>(sizeBytes), value);
}

inline Operation writeOf(long long position, long long sizeBytes) {
    return {Kind::Write, position, sizeBytes};
}

inline Operation gatherOf(long long position, long long sizeBytes) {
    return {Kind::Gather, position, sizeBytes};
}

inline constexpr Operation kFlush{Kind::Flush, 0, 0};

/// The buffering layer over a stream of a kind.
template <class Inner>
class Stack {
public:
    template <class... Args>
    explicit Stack(Args... args)
        : inner(yx::makeObject<Inner>(args...)),
          stream(yx::makeObject<yx::COptimizingIOStream>(inner.get())) {}

    void writeAt(__int64 position, Bytes const& bytes) {
        stream->seek(position);
        stream->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    /// The buffer lives only as long as the call: a stream that kept a reference would be found
    /// out.
    void writeKeepBufferAt(__int64 position, Bytes const& bytes) {
        yx::TBuffer<unsigned char> buffer(static_cast<int>(bytes.size()), -1);
        yx::copyMemory(buffer.getData(), bytes.data(), bytes.size());
        stream->seek(position);
        stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, buffer.getUsed()),
                                nullptr);
        yx::initMemory(buffer.getData(), 0xEE, bytes.size());
    }

    Bytes readAt(__int64 position, int sizeBytes) {
        Bytes bytes(static_cast<std::size_t>(sizeBytes));
        stream->seek(position);
        stream->read(bytes.data(), sizeBytes);
        return bytes;
    }

    std::string contentText() const { return {inner->content().begin(), inner->content().end()}; }

    yx::P<Inner> inner;
    yx::P<yx::COptimizingIOStream> stream;
};

class OptimizingIOStreamFixture : public testing::Test, protected Stack<ScriptedStream> {
protected:
    void setContent(std::string const& text) { inner->content().assign(text.begin(), text.end()); }
    void writeText(__int64 position, std::string const& text) {
        writeAt(position, Bytes(text.begin(), text.end()));
    }
    std::string readText(__int64 position, int sizeBytes) {
        Bytes const bytes = readAt(position, sizeBytes);
        return {bytes.begin(), bytes.end()};
    }
};

/// Whether `action` fails as the stream under the layer does where a test says.
inline testing::AssertionResult failsAsScripted(std::function<void()> const& action) {
    return test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                       {{"uri", "test:/stream"}}, action);
}

} // namespace optimizing_io_stream_fixture
