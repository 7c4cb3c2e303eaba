#include "yx/data_in_stream.h"

namespace yx {

namespace {

/// The least significant byte comes first, on every machine; compilers make one load of it.
template <class Value>
Value readLittleEndian(IInStream& stream) {
    unsigned char bytes[sizeof(Value)];
    stream.read(bytes, static_cast<int>(sizeof(Value)));
    unsigned long long value = 0;
    for (std::size_t i = 0; i < sizeof(Value); ++i)
        value |= static_cast<unsigned long long>(bytes[i]) << (8 * i);
    return static_cast<Value>(value);
}

} // namespace

CDataInStream::CDataInStream(IInStream* stream) : m_stream(stream) {}

unsigned char CDataInStream::readUInt8() {
    return readLittleEndian<unsigned char>(*m_stream);
}

unsigned short CDataInStream::readUInt16() {
    return readLittleEndian<unsigned short>(*m_stream);
}

unsigned int CDataInStream::readUInt32() {
    return readLittleEndian<unsigned int>(*m_stream);
}

unsigned long long CDataInStream::readUInt64() {
    return readLittleEndian<unsigned long long>(*m_stream);
}

__int64 CDataInStream::getLength() const {
    return m_stream->getLength();
}

__int64 CDataInStream::getPosition() const {
    return m_stream->getPosition();
}

CURI CDataInStream::getURI() {
    return m_stream->getURI();
}

void CDataInStream::seek(__int64 position) {
    m_stream->seek(position);
}

P<IStreamLock> CDataInStream::lockRange(__int64 position, __int64 length, LockType type) {
    return m_stream->lockRange(position, length, type);
}

void CDataInStream::close() {
    m_stream->close();
}

void CDataInStream::read(void* target, int sizeBytes) {
    m_stream->read(target, sizeBytes);
}

int CDataInStream::readLax(void* target, int sizeBytes) {
    return m_stream->readLax(target, sizeBytes);
}

int CDataInStream::readAvailable(void* target, int sizeBytes) {
    return m_stream->readAvailable(target, sizeBytes);
}

bool CDataInStream::waitReadable(int timeLimit) const {
    return m_stream->waitReadable(timeLimit);
}

bool CDataInStream::isEndOfStream() const {
    return m_stream->isEndOfStream();
}

int CDataInStream::isEndOfStream_NonBlocking() const {
    return m_stream->isEndOfStream_NonBlocking();
}

} // namespace yx
