// The buffering layer over every kind of stream, against a plain vector of bytes.
//
// KELM_MODEL_ROUNDS multiplies the number of histories.

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/hooked_file_system.h"
#include "tests/support/model_rounds.h"
#include "tests/support/scripted_stream.h"
#include "tests/yx/file_system_backends.h"
#include "yx/error.h"
#include "yx/memory.h"
#include "yx/optimizing_io_stream.h"

namespace optimizing_io_stream_model_test {

namespace {

using test_support::FileOperation;
using test_support::HookedFileSystem;
using test_support::ScriptedAlignedStream;
using test_support::ScriptedGatherStream;
using test_support::ScriptedStream;
using Bytes = std::vector<unsigned char>;

constexpr int kOperations = 100000;
constexpr int kMaxTransferBytes = 200 * 1024;
constexpr int kMaxPosition = 1536 * 1024;
constexpr int kMaxTries = 1000;

/// Of so many operations on the stream below, and of so many failures of the layer, one.
constexpr unsigned int kOperationsOfWhichOneFails = 10;
constexpr unsigned int kFailuresOfWhichOneIsNotTriedAgain = 4;

/// A stream for the layer to lie on.
struct Base {
    yx::P<yx::IIOStream> stream;

    /// Asked before each operation of the stream whether it is to fail.
    std::function<void(std::function<bool()>)> setFault;

    /// What the stream has, whatever fails.
    std::function<Bytes()> getContent;
};

template <class Stream, class... Args>
Base makeScripted(Args... args) {
    auto const stream = yx::makeObject<Stream>(args...);
    stream->setTornWrites(true);
    return {stream,
            [stream](std::function<bool()> const& isToFail) {
                stream->setFault(
                    [isToFail](ScriptedStream::Operation const&) { return isToFail(); });
            },
            [stream] {
                stream->operations().clear();
                return stream->content();
            }};
}

/// The layer itself, over a stream that gathers.
Base makeNested() {
    Base base = makeScripted<ScriptedGatherStream>();
    yx::P<yx::IIOStream> const below = base.stream;
    base.stream = yx::makeObject<yx::COptimizingIOStream>(below.get());
    return base;
}

/// A file whose operations fail before or after they did half of their work.
template <class Backend>
Base makeFile() {
    struct Owner {
        Backend backend;
        std::function<bool()> isToFail = [] { return false; };
    };
    auto const owner = std::make_shared<Owner>();
    auto const files = yx::makeObject<HookedFileSystem>(
        owner->backend.files.get(),
        [owner](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
            bool const isStep = operation.kind != FileOperation::Kind::Seek &&
                                operation.kind != FileOperation::Kind::Open;
            if (!isStep || !owner->isToFail()) {
                proceed();
                return;
            }
            if (operation.kind == FileOperation::Kind::Write) {
                operation.length /= 2;
                proceed();
            }
            throw yx::CIOError(yx::CIOError::IOFailure, "Torn.", yx::CProps(), nullptr);
        });
    unsigned int options = 0;
    yx::CURI const uri = owner->backend.uri("a");
    return {files->openFile(uri, yx::IIOStream::ReadWrite, &options),
            [owner](std::function<bool()> isToFail) { owner->isToFail = std::move(isToFail); },
            [owner, uri] { return test_support::readFile(*owner->backend.files, uri); }};
}

/// Runs random operations on the stream and on a plain vector, and compares what they show.
class Model {
public:
    Model(Base base, unsigned int seed, bool withFailures)
        : m_base(std::move(base)),
          m_random(seed),
          m_stream(yx::makeObject<yx::COptimizingIOStream>(m_base.stream.get())),
          m_source(kMaxTransferBytes, -1) {
        if (withFailures)
            m_base.setFault([this] { return draw(kOperationsOfWhichOneFails) == 0; });
    }

    /// Ends with no failure, so that the streams can close.
    ~Model() {
        m_base.setFault([] { return false; });
        m_stream.reset();
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
    int getGivenUpCount() const { return m_givenUpCount; }

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
            lookAtEnd();
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

    /// As before, but a failure may be the last word. False for that.
    template <class Action>
    bool succeedsOrIsGivenUp(Action const& action) {
        bool isDone = false;
        bool isGivenUp = false;
        untilItSucceeds([&] {
            if (isGivenUp)
                return;
            try {
                action();
                isDone = true;
            } catch (yx::CIOError const&) {
                isGivenUp = draw(kFailuresOfWhichOneIsNotTriedAgain) == 0;
                throw;
            }
        });
        m_givenUpCount += isDone ? 0 : 1;
        return isDone;
    }

    void lookAtEnd() {
        __int64 length = -1;
        untilItSucceeds([&] { length = m_stream->getLength(); });
        ASSERT_EQ(length, std::ssize(m_content));
        bool isAtEnd = false;
        untilItSucceeds([&] { isAtEnd = m_stream->isEndOfStream(); });
        ASSERT_EQ(isAtEnd, m_position >= length);
        bool isReadable = false;
        untilItSucceeds([&] { isReadable = m_stream->waitReadable(0); });
        ASSERT_EQ(isReadable, m_position < length);
    }

    /// What the layer shows as its whole content, read in pieces, so that a failure costs but one.
    Bytes readAll() {
        __int64 length = 0;
        untilItSucceeds([&] { length = m_stream->getLength(); });
        Bytes all(static_cast<std::size_t>(length));
        for (m_position = 0; m_position < length;) {
            m_stream->seek(m_position);
            auto const sizeBytes =
                static_cast<int>(std::min<long long>(kMaxTransferBytes, length - m_position));
            int count = 0;
            untilItSucceeds([&] { count = m_stream->readLax(all.data() + m_position, sizeBytes); });
            EXPECT_EQ(count, sizeBytes);
            m_position += sizeBytes;
        }
        return all;
    }

    /// Behind a write from `source` that failed for good, each byte of its range is the old or the
    /// new one, and all others are as they were.
    void takeOverAfterFailedWrite(unsigned char const* source, std::size_t sizeBytes) {
        long long const position = m_position;
        auto const start = static_cast<std::size_t>(position);
        std::size_t const oldSize = m_content.size();
        Bytes const all = readAll();
        ASSERT_GE(all.size(), oldSize);
        ASSERT_LE(all.size(), std::max(oldSize, start + sizeBytes));
        m_content.resize(std::max(all.size(), start + sizeBytes));
        for (std::size_t i = start; i < std::min(start + sizeBytes, all.size()); ++i) {
            if (all[i] == source[i - start])
                m_content[i] = all[i];
        }
        m_content.resize(all.size());
        ASSERT_TRUE(all == m_content);
        seek(static_cast<unsigned int>(position));
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

        yx::TConstBufferSlice<unsigned char> const slice(&m_source, 0, sizeBytes);
        bool const isDone = succeedsOrIsGivenUp([&] {
            if (keepBuffer)
                m_stream->writeKeepBuffer(slice, nullptr);
            else
                m_stream->write(source, sizeBytes, nullptr);
        });
        if (!isDone) {
            takeOverAfterFailedWrite(source, static_cast<std::size_t>(sizeBytes));
            return;
        }
        std::size_t const end = static_cast<std::size_t>(m_position + sizeBytes);
        m_content.resize(std::max(m_content.size(), end));
        std::copy_n(source, sizeBytes, m_content.begin() + m_position);
        m_position += sizeBytes;
    }

    void setLength() {
        std::size_t const length = draw(2) == 0
                                       ? draw(kMaxPosition)
                                       : std::max<std::size_t>(m_content.size(), 5000) - draw(5000);
        bool const isDone =
            succeedsOrIsGivenUp([&] { m_stream->setLength(static_cast<__int64>(length)); });
        if (isDone)
            m_content.resize(length);
    }

    void compareAfterFlush() {
        untilItSucceeds([&] { m_stream->flush(); });
        ++m_flushCount;
        ASSERT_TRUE(m_base.getContent() == m_content);
    }

    Base m_base;
    std::mt19937 m_random;
    yx::P<yx::COptimizingIOStream> m_stream;
    yx::TBuffer<unsigned char> m_source;
    Bytes m_content;
    long long m_position = 0;
    int m_failureCount = 0;
    int m_givenUpCount = 0;
    int m_flushCount = 0;
};

struct Kind {
    char const* name;
    Base (*make)();
};

Kind const kKinds[] = {
    {"Plain", [] { return makeScripted<ScriptedStream>(); }},
    {"Gathering", [] { return makeScripted<ScriptedGatherStream>(); }},
    {"AlignedToSectors", [] { return makeScripted<ScriptedAlignedStream>(512, 64, 4096); }},
    {"AlignedToPages", [] { return makeScripted<ScriptedAlignedStream>(4096, 512, 4096); }},
    {"Nested", makeNested},
    {"NativeFile", makeFile<file_system_backends::NativeToSystem>},
    {"MemoryFile", makeFile<file_system_backends::Memory>},
};

class OptimizingIOStreamModel : public testing::TestWithParam<std::tuple<Kind, bool>> {};

TEST_P(OptimizingIOStreamModel, BehavesLikeAPlainVector) {
    auto const& [kind, withFailures] = GetParam();
    for (unsigned int seed = 1; seed <= test_support::modelRounds(); ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Model model(kind.make(), seed, withFailures);
        model.run();
        if (testing::Test::HasFatalFailure())
            return;
        if (withFailures) {
            EXPECT_GT(model.getFailureCount(), 500);
            EXPECT_GT(model.getGivenUpCount(), 50);
        } else {
            EXPECT_EQ(model.getFailureCount(), 0);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, OptimizingIOStreamModel,
                         testing::Combine(testing::ValuesIn(kKinds), testing::Bool()),
                         [](auto const& kind) {
                             return std::string(std::get<0>(kind.param).name) +
                                    (std::get<1>(kind.param) ? "Failing" : "");
                         });

} // namespace

} // namespace optimizing_io_stream_model_test
