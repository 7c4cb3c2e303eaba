#include "yx/data_out_stream.h"

namespace yx {

namespace {

/// The least significant byte goes first, on every machine; compilers make one store of it.
template <class Value>
void writeLittleEndian(IOutStream& stream, Value value) {
    auto const wide = static_cast<unsigned long long>(value);
    unsigned char bytes[sizeof(Value)];
    for (std::size_t i = 0; i < sizeof(Value); ++i)
        bytes[i] = static_cast<unsigned char>(wide >> (8 * i));
    stream.write(bytes, static_cast<int>(sizeof(Value)), nullptr);
}

} // namespace

CDataOutStream::CDataOutStream(IOutStream* stream) : m_stream(stream) {}

CDataOutStream& CDataOutStream::writeUInt8(unsigned char value) {
    writeLittleEndian(*m_stream, value);
    return *this;
}

CDataOutStream& CDataOutStream::writeUInt16(unsigned short value) {
    writeLittleEndian(*m_stream, value);
    return *this;
}

CDataOutStream& CDataOutStream::writeUInt32(unsigned int value) {
    writeLittleEndian(*m_stream, value);
    return *this;
}

CDataOutStream& CDataOutStream::writeUInt64(unsigned long long value) {
    writeLittleEndian(*m_stream, value);
    return *this;
}

CDataOutStream& CDataOutStream::writeInt64(__int64 value) {
    writeLittleEndian(*m_stream, value);
    return *this;
}

__int64 CDataOutStream::getLength() const {
    return m_stream->getLength();
}

__int64 CDataOutStream::getPosition() const {
    return m_stream->getPosition();
}

CURI CDataOutStream::getURI() {
    return m_stream->getURI();
}

void CDataOutStream::seek(__int64 position) {
    m_stream->seek(position);
}

P<IStreamLock> CDataOutStream::lockRange(__int64 position, __int64 length, LockType type) {
    return m_stream->lockRange(position, length, type);
}

void CDataOutStream::close() {
    m_stream->close();
}

void CDataOutStream::write(void const* source, int sizeBytes, IWriteBarrier* barrier) {
    m_stream->write(source, sizeBytes, barrier);
}

void CDataOutStream::writeKeepBuffer(TConstBufferSlice<unsigned char> const& slice,
                                     IWriteBarrier* barrier) {
    m_stream->writeKeepBuffer(slice, barrier);
}

P<IWriteBarrier> CDataOutStream::createWriteBarrier(IWriteBarrier* previous) {
    return m_stream->createWriteBarrier(previous);
}

void CDataOutStream::flush() {
    m_stream->flush();
}

void CDataOutStream::setLength(__int64 length) {
    m_stream->setLength(length);
}

} // namespace yx
