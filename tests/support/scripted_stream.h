#pragma once

#include <functional>
#include <iosfwd>
#include <vector>

#include "yx/gather_out_stream.h"
#include "yx/stream.h"

namespace test_support {

/// A stream over memory that records every operation that reaches it and fails where a test says.
///
/// It stands for a file: the content can still be looked at after `close`. Its URI is
/// "test:/stream".
class ScriptedStream : public yx::CBase, public virtual yx::IIOStream {
public:
    enum class Kind {
        Read,
        Write,
        Gather, ///< one record for all pieces of a gathering write
        Barrier,
        Flush,
        SetLength,
        Lock,
        Close,
    };

    struct Operation {
        Kind kind;
        long long position; ///< the new length for `SetLength`, 0 where there is none
        long long sizeBytes;

        bool operator==(Operation const&) const = default;
    };

    /// Asked before each operation; true makes it fail with `CIOError` `IOFailure`, "Scripted
    /// failure.", with "uri".
    using Fault = std::function<bool(Operation const&)>;

    ScriptedStream() = default;
    explicit ScriptedStream(std::vector<unsigned char> content) : m_content(std::move(content)) {}

    std::vector<unsigned char>& content() { return m_content; }
    std::vector<Operation>& operations() { return m_operations; }

    /// The records of one kind.
    std::vector<Operation> operationsOf(Kind kind) const;

    /// Installs a fault; empty for none.
    void setFault(Fault fault) { m_fault = std::move(fault); }

    /// Makes the next operation of this kind fail, and no other.
    void failOnce(Kind kind);

    /// Makes each failing write leave the first half of its bytes behind.
    void setTornWrites(bool torn) { m_tornWrites = torn; }

    bool isClosed() const { return m_isClosed; }

    /// The barrier given with the last `write`.
    yx::IWriteBarrier* getLastBarrier() const { return m_lastBarrier; }

    /// The memory of the last transfer, or of the last piece of a gathering write: shows whether a
    /// caller's bytes came here without a copy.
    void const* getLastMemory() const { return m_lastMemory; }

    __int64 getLength() const override;
    __int64 getPosition() const override;
    yx::CURI getURI() override;
    void seek(__int64 position) override;
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override;
    void close() override;

    void read(void* target, int sizeBytes) override;
    int readLax(void* target, int sizeBytes) override;
    int readAvailable(void* target, int sizeBytes) override;
    bool waitReadable(int timeLimit) const override;
    bool isEndOfStream() const override;
    int isEndOfStream_NonBlocking() const override;

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override;
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override;
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override;
    void flush() override;
    void setLength(__int64 length) override;

protected:
    /// Records an operation and throws if it is to fail.
    void begin(Kind kind, long long position, long long sizeBytes);

    /// Whether it is to fail, after recording it.
    bool isToFail(Kind kind, long long position, long long sizeBytes);

    [[noreturn]] static void fail();
    bool isTorn() const { return m_tornWrites; }
    void store(long long position, void const* source, long long sizeBytes);

    void noteMemory(void const* memory) { m_lastMemory = memory; }

    /// Called with position, memory and size of every transfer.
    virtual void checkTransfer(long long position, void const* memory, long long sizeBytes) const;

private:
    std::vector<unsigned char> m_content;
    std::vector<Operation> m_operations;
    Fault m_fault;
    long long m_position = 0;
    yx::IWriteBarrier* m_lastBarrier = nullptr;
    void const* m_lastMemory = nullptr;
    bool m_tornWrites = false;
    bool m_isClosed = false;
};

/// Prints "Write 512+16", as a test's message shows an operation.
std::ostream& operator<<(std::ostream& stream, ScriptedStream::Operation const& operation);

/// The same stream with gathering writes.
class ScriptedGatherStream : public ScriptedStream, public virtual yx::IGatherOutStream {
public:
    using ScriptedStream::ScriptedStream;

    void writePieces(__int64 position, Piece const* pieces, int count) override;
};

/// The same stream with demands on alignment: a position, a length of a transfer or a place in
/// memory that is no multiple is `CIOError` `NotAligned`, "Not aligned.".
class ScriptedAlignedStream : public ScriptedStream, public virtual yx::IAlignedStreamBase {
public:
    ScriptedAlignedStream(int positionAlign, int bufferAlign, int bestPerformancePositionAlign)
        : m_positionAlign(positionAlign),
          m_bufferAlign(bufferAlign),
          m_bestPerformancePositionAlign(bestPerformancePositionAlign) {}

    void seek(__int64 position) override;

    int getPositionAlign() override { return m_positionAlign; }
    int getBufferAlign() override { return m_bufferAlign; }
    int getBestPerformancePositionAlign() override { return m_bestPerformancePositionAlign; }

protected:
    void checkTransfer(long long position, void const* memory, long long sizeBytes) const override;

private:
    int m_positionAlign;
    int m_bufferAlign;
    int m_bestPerformancePositionAlign;
};

} // namespace test_support
