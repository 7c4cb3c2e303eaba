#include "yx/optimizing_io_stream.h"

#include "yx/internal/stream_buffering.h"
#include "yx/log.h"

namespace yx {

COptimizingIOStream::COptimizingIOStream(IIOStream* stream)
    : COptimizingInStream(std::make_unique<detail::StreamBuffering>(stream, stream)) {}

COptimizingIOStream::COptimizingIOStream(IIOStream* stream, int firstFetchBytes)
    : COptimizingInStream(
          std::make_unique<detail::StreamBuffering>(stream, stream, firstFetchBytes)) {}

COptimizingIOStream& COptimizingIOStream::operator=(COptimizingIOStream const& other) {
    if (m_buffering != other.m_buffering)
        m_buffering->writeBack();
    COptimizingInStream::operator=(other);
    return *this;
}

COptimizingIOStream::~COptimizingIOStream() {
    try {
        m_buffering->writeBack();
    } catch (std::exception& error) {
        onExceptionInDestructorIgnored("yx::COptimizingIOStream", error, true);
    }
}

void COptimizingIOStream::write(void const* source, int sizeBytes, IWriteBarrier* barrier) {
    m_buffering->write(source, sizeBytes, barrier);
}

void COptimizingIOStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                          IWriteBarrier* barrier) {
    m_buffering->writeKeepBuffer(slice.getData(), slice.getLength(), barrier);
}

P<IWriteBarrier> COptimizingIOStream::createWriteBarrier(IWriteBarrier* previous) {
    return m_buffering->createWriteBarrier(previous);
}

void COptimizingIOStream::flush() {
    m_buffering->flush();
}

void COptimizingIOStream::setLength(__int64 length) {
    m_buffering->setLength(length);
}

IIOStream::Access COptimizingIOStream::getAccess() const {
    return m_buffering->getAccess();
}

} // namespace yx
