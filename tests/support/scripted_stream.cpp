#include "tests/support/scripted_stream.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <ostream>

#include "yx/error.h"

namespace test_support {

namespace {

constexpr char kURI[] = "test:/stream";

class ScriptedLock : public yx::CBase, public virtual yx::IStreamLock {};

[[noreturn]] void throwError(yx::CIOError::Code code, char const* message) {
    yx::CProps props;
    throw yx::CIOError(code, message, props.add("uri", kURI), nullptr);
}

char const* nameOf(ScriptedStream::Kind kind) {
    switch (kind) {
    case ScriptedStream::Kind::Read:
        return "Read";
    case ScriptedStream::Kind::Write:
        return "Write";
    case ScriptedStream::Kind::Gather:
        return "Gather";
    case ScriptedStream::Kind::Barrier:
        return "Barrier";
    case ScriptedStream::Kind::Flush:
        return "Flush";
    case ScriptedStream::Kind::SetLength:
        return "SetLength";
    case ScriptedStream::Kind::Lock:
        return "Lock";
    case ScriptedStream::Kind::Close:
        return "Close";
    }
    return "?";
}

} // namespace

std::vector<ScriptedStream::Operation> ScriptedStream::operationsOf(Kind kind) const {
    std::vector<Operation> result;
    std::ranges::copy_if(m_operations, std::back_inserter(result),
                         [&](Operation const& operation) { return operation.kind == kind; });
    return result;
}

void ScriptedStream::failOnce(Kind kind) {
    auto isOver = std::make_shared<bool>(false);
    setFault([kind, isOver](Operation const& operation) {
        if (*isOver || operation.kind != kind)
            return false;
        *isOver = true;
        return true;
    });
}

__int64 ScriptedStream::getLength() const {
    if (m_isClosed)
        throwError(yx::CIOError::Closed, "The stream is closed.");
    return std::ssize(m_content);
}

__int64 ScriptedStream::getPosition() const {
    return m_position;
}

yx::CURI ScriptedStream::getURI() {
    return yx::CURI(kURI);
}

void ScriptedStream::seek(__int64 position) {
    m_position = position;
}

yx::P<yx::IStreamLock> ScriptedStream::lockRange(__int64 position, __int64 length, LockType) {
    begin(Kind::Lock, position, length);
    return yx::makeObject<ScriptedLock>();
}

void ScriptedStream::close() {
    if (m_isClosed)
        return;
    begin(Kind::Close, 0, 0);
    m_isClosed = true;
}

void ScriptedStream::read(void* target, int sizeBytes) {
    if (readLax(target, sizeBytes) < sizeBytes)
        throwError(yx::CIOError::UnexpectedEnd, "Unexpected end of the scripted stream.");
}

int ScriptedStream::readLax(void* target, int sizeBytes) {
    begin(Kind::Read, m_position, sizeBytes);
    checkTransfer(m_position, target, sizeBytes);
    noteMemory(target);
    long long const count = std::clamp<long long>(std::ssize(m_content) - m_position, 0, sizeBytes);
    std::copy_n(m_content.begin() + (count > 0 ? m_position : 0), count,
                static_cast<unsigned char*>(target));
    m_position += count;
    return static_cast<int>(count);
}

int ScriptedStream::readAvailable(void* target, int sizeBytes) {
    return readLax(target, sizeBytes);
}

bool ScriptedStream::waitReadable(int) const {
    return !isEndOfStream();
}

bool ScriptedStream::isEndOfStream() const {
    return m_position >= getLength();
}

int ScriptedStream::isEndOfStream_NonBlocking() const {
    return isEndOfStream() ? 1 : 0;
}

void ScriptedStream::write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) {
    bool const fails = isToFail(Kind::Write, m_position, sizeBytes);
    checkTransfer(m_position, source, sizeBytes);
    noteMemory(source);
    if (fails) {
        if (m_tornWrites)
            store(m_position, source, sizeBytes / 2);
        fail();
    }
    m_lastBarrier = barrier;
    store(m_position, source, sizeBytes);
    m_position += sizeBytes;
}

void ScriptedStream::writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                                     yx::IWriteBarrier* barrier) {
    write(slice.getData(), slice.getLength(), barrier);
}

yx::P<yx::IWriteBarrier> ScriptedStream::createWriteBarrier(yx::IWriteBarrier*) {
    begin(Kind::Barrier, 0, 0);
    return yx::makeObject<yx::CDummyWriteBarrier>();
}

void ScriptedStream::flush() {
    begin(Kind::Flush, 0, 0);
}

void ScriptedStream::setLength(__int64 length) {
    begin(Kind::SetLength, length, 0);
    m_content.resize(static_cast<std::size_t>(length));
}

void ScriptedStream::begin(Kind kind, long long position, long long sizeBytes) {
    if (isToFail(kind, position, sizeBytes))
        fail();
}

bool ScriptedStream::isToFail(Kind kind, long long position, long long sizeBytes) {
    if (m_isClosed)
        throwError(yx::CIOError::Closed, "The stream is closed.");
    m_operations.push_back({kind, position, sizeBytes});
    return m_fault && m_fault(m_operations.back());
}

void ScriptedStream::fail() {
    throwError(yx::CIOError::IOFailure, "Scripted failure.");
}

void ScriptedStream::store(long long position, void const* source, long long sizeBytes) {
    if (sizeBytes == 0)
        return;
    auto const end = static_cast<std::size_t>(position + sizeBytes);
    if (m_content.size() < end)
        m_content.resize(end);
    std::copy_n(static_cast<unsigned char const*>(source), sizeBytes, m_content.begin() + position);
}

void ScriptedStream::checkTransfer(long long, void const*, long long) const {}

std::ostream& operator<<(std::ostream& stream, ScriptedStream::Operation const& operation) {
    return stream << nameOf(operation.kind) << ' ' << operation.position << '+'
                  << operation.sizeBytes;
}

void ScriptedGatherStream::writePieces(__int64 position, Piece const* pieces, int count) {
    long long sizeBytes = 0;
    for (int i = 0; i < count; ++i)
        sizeBytes += pieces[i].sizeBytes;

    bool const fails = isToFail(Kind::Gather, position, sizeBytes);
    long long left = fails ? (isTorn() ? sizeBytes / 2 : 0) : sizeBytes;
    for (int i = 0; i < count; ++i) {
        noteMemory(pieces[i].data);
        long long const stored = std::min<long long>(left, pieces[i].sizeBytes);
        store(position, pieces[i].data, stored);
        position += stored;
        left -= stored;
    }
    if (fails)
        fail();
}

void ScriptedAlignedStream::seek(__int64 position) {
    if (position % m_positionAlign != 0)
        throwError(yx::CIOError::NotAligned, "Not aligned.");
    ScriptedStream::seek(position);
}

void ScriptedAlignedStream::checkTransfer(long long position, void const* memory,
                                          long long sizeBytes) const {
    auto const address = reinterpret_cast<std::uintptr_t>(memory);
    if (position % m_positionAlign != 0 || sizeBytes % m_positionAlign != 0 ||
        address % static_cast<std::uintptr_t>(m_bufferAlign) != 0) {
        throwError(yx::CIOError::NotAligned, "Not aligned.");
    }
}

} // namespace test_support
