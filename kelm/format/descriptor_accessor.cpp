#include "kelm/format/descriptor_accessor.h"

#include <cassert>
#include <limits>

#include "kelm/format/constants.h"
#include "kelm/format/internal/uri_props.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/data_in_stream.h"
#include "yx/error.h"
#include "yx/mt_rand.h"

namespace kelm {

namespace {

constexpr int kMaxDescriptorSizeBytes = 5 * 1024 * 1024;

[[noreturn]] void throwCorrupt(yx::IIOStream& stream, yx::String const& message) {
    throw yx::CIOError(yx::CIOError::CorruptData, message, uriPropsOf(stream), nullptr);
}

/// Runs `operation` and puts the stream's position back, also when it fails with a `yx::CError`.
template <class Operation>
void keepPosition(yx::IIOStream& stream, Operation operation) {
    __int64 const position = stream.getPosition();
    try {
        operation();
        stream.seek(position);
    } catch (yx::CError const& error) {
        error.nop();
        try {
            stream.seek(position);
        } catch (std::exception const&) {
            // The first error is the one to report.
        }
        throw;
    }
}

/// Wraps around for numbers that no file can have. `verifyRange` refuses those that do not come out
/// as 0 or negative.
__int64 sectorsToBytes(unsigned long long sectors) {
    return static_cast<__int64>(sectors * kSectorSizeBytes);
}

void verifyRange(yx::IIOStream& stream, char const* field, unsigned long long sectors) {
    if (sectors > std::numeric_limits<__int64>::max() / kSectorSizeBytes) {
        throwCorrupt(stream, "Invalid " + yx::String(field) +
                                 " in VMDK sparse header: " + yx::toString(sectors));
    }
}

} // namespace

CVMDKDescriptorAccessor::CVMDKDescriptorAccessor(yx::IIOStream* stream,
                                                 yx::IIOStream::Access access)
    : m_stream(stream), m_access(access) {
    keepPosition(*m_stream, [this] { readDescriptor(); });
}

void CVMDKDescriptorAccessor::readDescriptor() {
    m_stream->seek(0);
    unsigned int const magic = yx::CDataInStream(m_stream.get()).readUInt32();
    m_embeddedInSparseExtentFile =
        magic == kHeaderMagic || magic == kEncryptionExtensionHeaderMagic;
    if (m_embeddedInSparseExtentFile)
        locateEmbeddedDescriptor();
    else
        m_descriptorSizeBytes = m_stream->getLength();
    if (m_descriptorSizeBytes > kMaxDescriptorSizeBytes) {
        throwCorrupt(*m_stream, "VMDK descriptor is too big (" +
                                    yx::toString(m_descriptorSizeBytes) + " bytes).");
    }
    if (m_embeddedInSparseExtentFile &&
        m_descriptorOffsetBytes > m_stream->getLength() - m_descriptorSizeBytes) {
        throwCorrupt(*m_stream, "VMDK descriptor lies beyond the end of the file (offset: " +
                                    yx::toString(m_descriptorOffsetBytes) + " bytes, size: " +
                                    yx::toString(m_descriptorSizeBytes) + " bytes).");
    }
    yx::TBuffer<unsigned char> text(static_cast<int>(m_descriptorSizeBytes), -1);
    m_stream->seek(m_descriptorOffsetBytes);
    m_stream->read(text.getData(), text.getUsed());
    m_descriptor = yx::makeObject<CVMDKDescriptor>(text);
    assert(m_descriptorOffsetBytes >= 0 && m_descriptorSizeBytes >= 0);
    assert(m_embeddedInSparseExtentFile || m_descriptorOffsetBytes == 0);
}

void CVMDKDescriptorAccessor::locateEmbeddedDescriptor() {
    m_stream->seek(0);
    yx::CDataInStream in(m_stream.get());
    CVMDKSparseExtentHeader header;
    header.load(in);
    if (header.getVersion() < kOldestVersion || header.getVersion() > kNewestVersion) {
        throw yx::CIOError(yx::CIOError::UnsupportedVersion,
                           "VMDK file has an unsupported version: " +
                               yx::toString(header.getVersion()),
                           uriPropsOf(*m_stream), nullptr);
    }
    m_descriptorOffsetBytes = sectorsToBytes(header.getDescriptorOffsetSectors());
    m_descriptorSizeBytes = sectorsToBytes(header.getDescriptorSizeSectors());
    if (m_descriptorOffsetBytes <= 0 || m_descriptorSizeBytes <= 0)
        throwCorrupt(*m_stream, "No VMDK descriptor found in VMDK file.");
    verifyRange(*m_stream, "descriptor offset", header.getDescriptorOffsetSectors());
    verifyRange(*m_stream, "descriptor size", header.getDescriptorSizeSectors());
}

void CVMDKDescriptorAccessor::verifyWriteAccess(char const* function) const {
    if (m_access != yx::IIOStream::ReadWrite) {
        throw yx::CError("Internal error: CVMDKDescriptorAccessor::" + yx::String(function) +
                             " was called, but the accessor was not opened for writing.",
                         "", -1, yx::CProps(), nullptr);
    }
}

void CVMDKDescriptorAccessor::storeDescriptor(bool flush) {
    verifyWriteAccess("storeDescriptor");
    keepPosition(*m_stream, [this, flush] {
        assert(m_descriptorSizeBytes <= kMaxDescriptorSizeBytes);
        m_stream->seek(m_descriptorOffsetBytes);
        int const sizeBytes = static_cast<int>(m_descriptorSizeBytes);
        yx::TBuffer<unsigned char> zeros(sizeBytes, -1);
        yx::initMemory(zeros.getData(), 0, static_cast<size_t>(sizeBytes));
        m_descriptor->store(*m_stream, sizeBytes, zeros);
        if (flush)
            m_stream->flush();
    });
}

unsigned int CVMDKDescriptorAccessor::changeContentID() {
    verifyWriteAccess("changeContentID");
    unsigned int const oldID = m_descriptor->getContentID();
    unsigned int newID = yx::CMTRand::drawGlobal32();
    while (newID == 0 || newID == kNoParentContentID || newID == oldID)
        newID = yx::CMTRand::drawGlobal32();
    m_descriptor->setContentID(newID);
    return newID;
}

} // namespace kelm
