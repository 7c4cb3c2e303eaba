#pragma once

#include "kelm/format/descriptor.h"

namespace kelm {

/// Finds the descriptor in a file, whether the file is a sparse extent with an embedded descriptor
/// or the descriptor's text itself, and can write it back in its place.
///
/// Every operation leaves the stream's position as it found it, also when it fails with an error of
/// the `yx::CError` family.
class KELM_API CVMDKDescriptorAccessor : public yx::CBase {
public:
    /// Reads and parses the descriptor; `access` says how the stream was opened.
    ///
    /// Throws `yx::CIOError` with "uri": `UnsupportedVersion` "VMDK file has an unsupported
    /// version: " and the version; `CorruptData` "No VMDK descriptor found in VMDK file.";
    /// `CorruptData` "VMDK descriptor is too big (" size " bytes)." above 5 MiB; `CorruptData` if
    /// the area that the header names does not lie in the file. Errors of the stream and of
    /// `CVMDKSparseExtentHeader::load` pass through.
    CVMDKDescriptorAccessor(yx::IIOStream* stream, yx::IIOStream::Access access);

    /// The parsed descriptor, shared with the caller.
    yx::P<CVMDKDescriptor> getDescriptor() const { return m_descriptor; }

    /// Whether the file starts with a sparse extent header.
    bool getEmbeddedInSparseExtentFile() const { return m_embeddedInSparseExtentFile; }

    /// Writes the descriptor over all of its area, zeros behind the text, and flushes the stream if
    /// `flush`. A text file keeps its length, so a text that has outgrown it is the error of
    /// `CVMDKDescriptor::store`. Without write access: `yx::CError` "Internal error:
    /// CVMDKDescriptorAccessor::storeDescriptor was called, but the accessor was not opened for
    /// writing."
    void storeDescriptor(bool flush);

    /// Draws a new content ID, which is neither 0 nor 0xFFFFFFFF nor the present one, sets it in
    /// the parsed descriptor and returns it; writes nothing. Without write access: `yx::CError`, as
    /// above, naming `changeContentID`.
    unsigned int changeContentID();

private:
    void readDescriptor();
    void locateEmbeddedDescriptor();
    void verifyWriteAccess(char const* function) const;

    yx::P<yx::IIOStream> m_stream;
    yx::IIOStream::Access m_access;
    bool m_embeddedInSparseExtentFile = false;
    __int64 m_descriptorOffsetBytes = 0;
    __int64 m_descriptorSizeBytes = 0;
    yx::P<CVMDKDescriptor> m_descriptor;
};

} // namespace kelm
