#include "yx/internal/positioned_stream.h"

#include <algorithm>
#include <cassert>
#include <cstdint>

#include "yx/internal/native_file_stream.h"
#include "yx/memory.h"

namespace yx::detail {

namespace {

constexpr int kMinBounceSizeBytes = 256 * 1024;
constexpr int kDefaultBestPerformanceAlign = 4096;

} // namespace

PositionedStream::PositionedStream(IInStream* in, IIOStream* out, IIOStream::Access access)
    : m_in(in), m_out(out), m_bestPerformancePositionAlign(kDefaultBestPerformanceAlign) {
    if (auto* const file = asNativeFileStream(in)) {
        m_gather = out ? file : nullptr;
    } else {
        if (access != IIOStream::ReadOnly)
            m_gather = dynamic_cast<IGatherOutStream*>(out);
        queryAlignment();
    }
    assert(m_bestPerformancePositionAlign >= m_positionAlign &&
           m_bounceSizeBytes % m_positionAlign == 0);
}

void PositionedStream::queryAlignment() {
    auto* const aligned = dynamic_cast<IAlignedStreamBase*>(m_in.get());
    if (!aligned)
        return;
    m_positionAlign = std::max(1, aligned->getPositionAlign());
    m_bufferAlign = std::max(1, aligned->getBufferAlign());
    m_bestPerformancePositionAlign =
        std::max({m_positionAlign, aligned->getBestPerformancePositionAlign(),
                  m_bestPerformancePositionAlign});
    m_bounceSizeBytes = std::max(1, kMinBounceSizeBytes / m_positionAlign) * m_positionAlign;
}

__int64 PositionedStream::getLength() const {
    return m_lengthToRestore ? *m_lengthToRestore : m_in->getLength();
}

int PositionedStream::read(__int64 position, unsigned char* target, int sizeBytes) {
    if (!isAligned())
        return readRaw(position, target, sizeBytes);
    if (m_lengthToRestore) {
        __int64 const available = std::max<__int64>(0, *m_lengthToRestore - position);
        sizeBytes = static_cast<int>(std::min<__int64>(sizeBytes, available));
    }
    if (fits(position, target, sizeBytes))
        return readRaw(position, target, sizeBytes);
    return readBounced(position, target, sizeBytes);
}

void PositionedStream::write(__int64 position, IGatherOutStream::Piece const* pieces, int count) {
    if (m_gather && !isAligned()) {
        m_gather->writePieces(position, pieces, count);
        return;
    }
    for (int i = 0; i < count; ++i) {
        write(position, pieces[i].data, pieces[i].sizeBytes, nullptr);
        position += pieces[i].sizeBytes;
    }
}

void PositionedStream::write(__int64 position, void const* source, int sizeBytes,
                             IWriteBarrier* barrier) {
    if (!isAligned()) {
        writeRaw(position, source, sizeBytes, barrier);
        return;
    }
    cutPadding();
    if (fits(position, source, sizeBytes))
        writeRaw(position, source, sizeBytes, barrier);
    else
        writeBounced(position, static_cast<unsigned char const*>(source), sizeBytes, barrier);
}

P<IWriteBarrier> PositionedStream::createWriteBarrier(IWriteBarrier* previous) {
    cutPadding();
    return m_out->createWriteBarrier(previous);
}

void PositionedStream::flush() {
    cutPadding();
    m_out->flush();
}

void PositionedStream::setLength(__int64 length) {
    // What a failed write left behind the end must not become content.
    if (m_lengthToRestore && length > *m_lengthToRestore)
        cutPadding();
    m_out->setLength(length);
    m_lengthToRestore.reset();
}

void PositionedStream::close() {
    cutPadding();
    m_in->close();
}

bool PositionedStream::waitReadable(__int64 position, int timeLimit) const {
    if (!isAligned()) {
        m_in->seek(position);
        return m_in->waitReadable(timeLimit);
    }
    // The block that holds the position may have data before it alone.
    if (position >= getLength())
        return false;
    m_in->seek(alignDown(position));
    return m_in->waitReadable(timeLimit);
}

unsigned char* PositionedStream::getBounceBuffer() {
    if (!m_bounceBuffer) {
        auto const align = static_cast<std::size_t>(m_bufferAlign);
        m_bounceStorage = std::make_unique_for_overwrite<unsigned char[]>(
            static_cast<std::size_t>(m_bounceSizeBytes) + align - 1);
        std::size_t const excess = reinterpret_cast<std::uintptr_t>(m_bounceStorage.get()) % align;
        m_bounceBuffer = m_bounceStorage.get() + (excess == 0 ? 0 : align - excess);
    }
    return m_bounceBuffer;
}

bool PositionedStream::fits(__int64 position, void const* data, int sizeBytes) const {
    return position % m_positionAlign == 0 && sizeBytes % m_positionAlign == 0 &&
           reinterpret_cast<std::uintptr_t>(data) % static_cast<std::uintptr_t>(m_bufferAlign) == 0;
}

__int64 PositionedStream::alignDown(__int64 position) const {
    return position - position % m_positionAlign;
}

__int64 PositionedStream::alignUp(__int64 position) const {
    return alignDown(position + m_positionAlign - 1);
}

int PositionedStream::readRaw(__int64 position, unsigned char* target, int sizeBytes) {
    assert(!isAligned() || fits(position, target, sizeBytes));
    m_in->seek(position);
    return m_in->readLax(target, sizeBytes);
}

void PositionedStream::writeRaw(__int64 position, void const* source, int sizeBytes,
                                IWriteBarrier* barrier) {
    assert(!isAligned() || fits(position, source, sizeBytes));
    m_out->seek(position);
    m_out->write(source, sizeBytes, barrier);
}

int PositionedStream::readBounced(__int64 position, unsigned char* target, int sizeBytes) {
    unsigned char* const bounce = getBounceBuffer();
    __int64 const end = position + sizeBytes;
    int done = 0;
    while (done < sizeBytes) {
        __int64 const begin = position + done;
        __int64 const chunkBegin = alignDown(begin);
        __int64 const chunkEnd = std::min(chunkBegin + m_bounceSizeBytes, alignUp(end));
        int const got = readRaw(chunkBegin, bounce, static_cast<int>(chunkEnd - chunkBegin));
        __int64 const usedEnd = std::min(chunkBegin + got, end);
        if (usedEnd <= begin)
            break;
        auto const used = static_cast<int>(usedEnd - begin);
        copyMemory(target + done, bounce + (begin - chunkBegin), static_cast<std::size_t>(used));
        done += used;
        if (chunkBegin + got < chunkEnd)
            break;
    }
    return done;
}

void PositionedStream::writeBounced(__int64 position, unsigned char const* source, int sizeBytes,
                                    IWriteBarrier* barrier) {
    assert(!m_lengthToRestore && "padding is cut off before the next write");
    unsigned char* const bounce = getBounceBuffer();
    __int64 const end = position + sizeBytes;
    __int64 const oldLength = getLength();
    __int64 const newLength = std::max(oldLength, end);
    // If a write below fails, the length must not count padding either.
    if (alignUp(end) > newLength)
        m_lengthToRestore = oldLength;

    __int64 begin = position;
    while (begin < end) {
        __int64 const chunkBegin = alignDown(begin);
        __int64 const chunkEnd = std::min(chunkBegin + m_bounceSizeBytes, alignUp(end));
        __int64 const usedEnd = std::min(chunkEnd, end);
        if (begin > chunkBegin)
            loadEdge(chunkBegin, bounce);
        __int64 const lastBlock = chunkEnd - m_positionAlign;
        if (usedEnd < chunkEnd && !(begin > chunkBegin && lastBlock == chunkBegin))
            loadEdge(lastBlock, bounce + (lastBlock - chunkBegin));
        copyMemory(bounce + (begin - chunkBegin), source + (begin - position),
                   static_cast<std::size_t>(usedEnd - begin));
        writeRaw(chunkBegin, bounce, static_cast<int>(chunkEnd - chunkBegin), barrier);
        begin = usedEnd;
    }

    if (m_lengthToRestore) {
        m_lengthToRestore = newLength;
        cutPadding();
    }
}

void PositionedStream::loadEdge(__int64 blockPosition, unsigned char* block) {
    int const got = readRaw(blockPosition, block, m_positionAlign);
    // What lies past the end is padding, and reads as zeros if the stream grows over it.
    initMemory(block + got, 0, static_cast<std::size_t>(m_positionAlign - got));
}

void PositionedStream::cutPadding() {
    if (!m_lengthToRestore)
        return;
    m_out->setLength(*m_lengthToRestore);
    m_lengthToRestore.reset();
}

} // namespace yx::detail
