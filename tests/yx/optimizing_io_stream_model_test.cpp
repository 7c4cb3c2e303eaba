#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/scripted_stream.h"
#include "yx/error.h"
#include "yx/memory.h"
#include "yx/optimizing_io_stream.h"

namespace {

using test_support::ScriptedAlignedStream;
using test_support::ScriptedGatherStream;
using test_support::ScriptedStream;
using Bytes = std::vector<unsigned char>;

constexpr int kOperations = 100000;
constexpr int kMaxTransferBytes = 200 * 1024;
constexpr int kMaxPosition = 1536 * 1024;
constexpr int kMaxTries = 200;

/// Runs random operations on the stream and on a plain vector, and compares what they show.
class Model {
public:
    Model(yx::P<ScriptedStream> inner, unsigned int seed, bool withFailures)
        : m_inner(std::move(inner)),
          m_random(seed),
          m_stream(yx::makeObject<yx::COptimizingIOStream>(m_inner.get())),
          m_source(kMaxTransferBytes, -1) {
        if (withFailures) {
            m_inner->setTornWrites(true);
            m_inner->setFault([this](ScriptedStream::Operation const&) { return draw(20) == 0; });
        }
    }

    void run() {
        for (int i = 0; i < kOperations && !testing::Test::HasFatalFailure(); ++i) {
            SCOPED_TRACE("operation " + std::to_string(i));
            step();
            ASSERT_EQ(m_stream->getPosition(), m_position);
        }
        compareAfterFlush();
        ASSERT_GT(m_flushCount, 0);
    }

    int getFailureCount() const { return m_failureCount; }

private:
    unsigned int draw(unsigned int limit) { return static_cast<unsigned int>(m_random() % limit); }

    /// Sizes of every magnitude alike.
    int drawSize() {
        unsigned int const bits = draw(18) + 1;
        return static_cast<int>(std::min<unsigned int>(1 + draw(1U << bits), kMaxTransferBytes));
    }

    void step() {
        switch (draw(16)) {
        case 0:
        case 1:
        case 2:
            seek(draw(kMaxPosition));
            break;
        case 3:
            // Back to where something happens, as tables and data do.
            seek(draw(8) * 100000 + draw(2000));
            break;
        case 4:
        case 5:
        case 6:
            read();
            break;
        case 7:
        case 8:
            readLax();
            break;
        case 9:
        case 10:
        case 11:
            write(false);
            break;
        case 12:
        case 13:
            write(true);
            break;
        case 14:
            ASSERT_EQ(m_stream->getLength(), std::ssize(m_content));
            ASSERT_EQ(m_stream->isEndOfStream(), m_position >= std::ssize(m_content));
            break;
        default:
            rarely();
            break;
        }
    }

    void rarely() {
        unsigned int const kind = draw(10);
        if (kind < 5) {
            untilItSucceeds([&] { m_stream->flush(); });
            ++m_flushCount;
        } else if (kind == 5) {
            compareAfterFlush();
        } else if (kind < 9) {
            setLength();
        } else {
            untilItSucceeds([&] { m_stream->createWriteBarrier(nullptr); });
        }
    }

    template <class Action>
    void untilItSucceeds(Action const& action) {
        for (int tries = 0; tries < kMaxTries; ++tries) {
            try {
                action();
                return;
            } catch (yx::CIOError const& error) {
                ASSERT_EQ(error.getIOCode(), yx::CIOError::IOFailure) << error.what();
                ++m_failureCount;
                ASSERT_EQ(m_stream->getPosition(), m_position);
            }
        }
        FAIL() << "never succeeds";
    }

    void seek(unsigned int position) {
        m_position = position;
        m_stream->seek(m_position);
    }

    /// What is there from the position on, up to a size.
    int available(int sizeBytes) const {
        return static_cast<int>(
            std::clamp<long long>(std::ssize(m_content) - m_position, 0, sizeBytes));
    }

    void compare(Bytes const& bytes, int count) {
        if (count == 0)
            return;
        ASSERT_TRUE(
            std::equal(bytes.begin(), bytes.begin() + count, m_content.begin() + m_position));
    }

    void read() {
        int const sizeBytes = drawSize();
        Bytes bytes(static_cast<std::size_t>(sizeBytes));
        if (available(sizeBytes) < sizeBytes) {
            try {
                m_stream->read(bytes.data(), sizeBytes);
                FAIL() << "read past the end";
            } catch (yx::CIOError const& error) {
                if (error.getIOCode() != yx::CIOError::UnexpectedEnd)
                    ++m_failureCount;
            }
            return;
        }
        untilItSucceeds([&] { m_stream->read(bytes.data(), sizeBytes); });
        compare(bytes, sizeBytes);
        m_position += sizeBytes;
    }

    void readLax() {
        int const sizeBytes = drawSize();
        Bytes bytes(static_cast<std::size_t>(sizeBytes));
        int count = 0;
        bool const isLax = draw(4) != 0;
        untilItSucceeds([&] {
            count = isLax ? m_stream->readLax(bytes.data(), sizeBytes)
                          : m_stream->readAvailable(bytes.data(), sizeBytes);
        });
        if (isLax) {
            ASSERT_EQ(count, available(sizeBytes));
        } else {
            ASSERT_LE(count, available(sizeBytes));
            ASSERT_EQ(count > 0, available(sizeBytes) > 0);
        }
        compare(bytes, count);
        m_position += count;
    }

    void write(bool keepBuffer) {
        int const sizeBytes = drawSize();
        unsigned char* const source = m_source.getData();
        for (int i = 0; i < sizeBytes; i += 1 + static_cast<int>(draw(64)))
            source[i] = static_cast<unsigned char>(m_random());

        if (m_content.size() < static_cast<std::size_t>(m_position + sizeBytes))
            m_content.resize(static_cast<std::size_t>(m_position + sizeBytes));
        std::copy_n(source, sizeBytes, m_content.begin() + m_position);

        yx::TConstBufferSlice<unsigned char> const slice(&m_source, 0, sizeBytes);
        untilItSucceeds([&] {
            if (keepBuffer)
                m_stream->writeKeepBuffer(slice, nullptr);
            else
                m_stream->write(source, sizeBytes, nullptr);
        });
        m_position += sizeBytes;
    }

    void setLength() {
        std::size_t const length = draw(2) == 0
                                       ? draw(kMaxPosition)
                                       : std::max<std::size_t>(m_content.size(), 5000) - draw(5000);
        untilItSucceeds([&] { m_stream->setLength(static_cast<__int64>(length)); });
        m_content.resize(length);
    }

    void compareAfterFlush() {
        untilItSucceeds([&] { m_stream->flush(); });
        ++m_flushCount;
        ASSERT_TRUE(m_inner->content() == m_content);
        m_inner->operations().clear();
    }

    yx::P<ScriptedStream> m_inner;
    std::mt19937 m_random;
    yx::P<yx::COptimizingIOStream> m_stream;
    yx::TBuffer<unsigned char> m_source;
    Bytes m_content;
    long long m_position = 0;
    int m_failureCount = 0;
    int m_flushCount = 0;
};

struct Variant {
    char const* name;
    yx::P<ScriptedStream> (*make)();
    unsigned int seed;
    bool withFailures;
};

yx::P<ScriptedStream> makePlain() {
    return yx::makeObject<ScriptedStream>();
}

yx::P<ScriptedStream> makeGathering() {
    return yx::makeObject<ScriptedGatherStream>();
}

yx::P<ScriptedStream> makeAligned() {
    return yx::makeObject<ScriptedAlignedStream>(512, 64, 4096);
}

class OptimizingIOStreamModel : public testing::TestWithParam<Variant> {};

TEST_P(OptimizingIOStreamModel, BehavesLikeAPlainVector) {
    Variant const& variant = GetParam();
    SCOPED_TRACE("seed " + std::to_string(variant.seed));
    Model model(variant.make(), variant.seed, variant.withFailures);
    model.run();
    if (variant.withFailures)
        EXPECT_GT(model.getFailureCount(), 100);
    else
        EXPECT_EQ(model.getFailureCount(), 0);
}

INSTANTIATE_TEST_SUITE_P(Variants, OptimizingIOStreamModel,
                         testing::Values(Variant{"Plain", makePlain, 11, false},
                                         Variant{"PlainFailing", makePlain, 12, true},
                                         Variant{"Gathering", makeGathering, 13, false},
                                         Variant{"GatheringFailing", makeGathering, 14, true},
                                         Variant{"Aligned", makeAligned, 15, false},
                                         Variant{"AlignedFailing", makeAligned, 16, true}),
                         [](auto const& variant) { return std::string(variant.param.name); });

} // namespace
