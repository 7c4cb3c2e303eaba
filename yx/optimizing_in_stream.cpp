#include "yx/optimizing_in_stream.h"

#include "yx/internal/stream_buffering.h"

namespace yx {

COptimizingInStream::COptimizingInStream(IInStream* stream)
    : m_buffering(std::make_unique<detail::StreamBuffering>(stream, nullptr)) {}

COptimizingInStream::COptimizingInStream(std::unique_ptr<detail::StreamBuffering> buffering)
    : m_buffering(std::move(buffering)) {}

COptimizingInStream::~COptimizingInStream() = default;

__int64 COptimizingInStream::getLength() const {
    return m_buffering->getLength();
}

__int64 COptimizingInStream::getPosition() const {
    return m_buffering->getOpenPosition();
}

CURI COptimizingInStream::getURI() {
    return m_buffering->getURI();
}

void COptimizingInStream::seek(__int64 position) {
    m_buffering->seek(position);
}

P<IStreamLock> COptimizingInStream::lockRange(__int64 position, __int64 length, LockType type) {
    return m_buffering->lockRange(position, length, type);
}

void COptimizingInStream::close() {
    m_buffering->close();
}

void COptimizingInStream::read(void* target, int sizeBytes) {
    m_buffering->read(target, sizeBytes);
}

int COptimizingInStream::readLax(void* target, int sizeBytes) {
    return m_buffering->readLax(target, sizeBytes);
}

int COptimizingInStream::readAvailable(void* target, int sizeBytes) {
    return m_buffering->readAvailable(target, sizeBytes);
}

bool COptimizingInStream::waitReadable(int timeLimit) const {
    return m_buffering->waitReadable(timeLimit);
}

bool COptimizingInStream::isEndOfStream() const {
    return m_buffering->isEndOfStream();
}

int COptimizingInStream::isEndOfStream_NonBlocking() const {
    return m_buffering->isEndOfStream() ? 1 : 0;
}

int COptimizingInStream::getPositionAlign() {
    return 1;
}

int COptimizingInStream::getBufferAlign() {
    return 1;
}

int COptimizingInStream::getBestPerformancePositionAlign() {
    return m_buffering->getBestPerformancePositionAlign();
}

} // namespace yx
