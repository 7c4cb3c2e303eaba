#include "integrations/s3/object_stream.h"

#include "integrations/s3/server_error.h"
#include "yx/internal/stream_error.h"

namespace kelm::s3 {

CObjectStream::CObjectStream(std::shared_ptr<ObjectContent> content, yx::CURI const& uri)
    : CFileStream("CObjectStream", uri, ReadOnly), m_content(std::move(content)) {}

__int64 CObjectStream::getLength() const {
    requireOpen();
    return m_content->getVersion().lengthBytes;
}

void CObjectStream::close() {
    m_content.reset();
}

void CObjectStream::flush() {
    requireOpen();
}

void CObjectStream::setLength(__int64) {
    requireWritable();
}

int CObjectStream::readAt(__int64 position, void* target, int sizeBytes) const {
    return m_content->read(position, target, sizeBytes, uri());
}

int CObjectStream::readPlace(__int64 positionBytes, void* target, int sizeBytes) const {
    requireOpen();
    return readAt(positionBytes, target, sizeBytes);
}

void CObjectStream::writeAt(__int64, Piece const*, int, __int64) {
    // Never reached: no stream of this class is writable.
    throwStoreIsReadOnly(uri());
}

yx::P<yx::IStreamLock> CObjectStream::lockAt(__int64, __int64, bool) {
    yx::detail::throwLockingNotSupported(uri());
}

} // namespace kelm::s3
