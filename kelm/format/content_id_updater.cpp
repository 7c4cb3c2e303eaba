#include "kelm/format/content_id_updater.h"

#include <cassert>

#include "kelm/extent/low_level_file_stream.h"
#include "kelm/extent/sparse_extent_file.h"
#include "kelm/format/constants.h"
#include "kelm/format/descriptor_accessor.h"

namespace kelm {

namespace {

/// Gives the descriptor in the file a new content ID and returns it once it is on the device.
unsigned int changeStoredContentID(yx::IIOStream* stream) {
    CVMDKDescriptorAccessor accessor(stream, yx::IIOStream::ReadWrite);
    unsigned int const contentID = accessor.changeContentID();
    accessor.storeDescriptor(true);
    return contentID;
}

} // namespace

CVMDKContentIDUpdater::CVMDKContentIDUpdater(yx::IFileSystem* fileSystem,
                                             yx::CURI const& mainFileURI,
                                             CVMDKDescriptor* descriptor)
    : m_fileSystem(fileSystem),
      m_mainFileURI(mainFileURI.toNormalized()),
      m_descriptor(descriptor) {}

void CVMDKContentIDUpdater::onDiskAboutToChange(CVMDKSparseExtentFile& extentFile) {
    if (m_alreadyChanged || !m_updatesEnabled)
        return;
    unsigned int const contentID = changeMainFileContentID(extentFile);
    assert(contentID != 0 && contentID != kNoParentContentID);
    m_descriptor->setContentID(contentID);
    m_alreadyChanged = true;
}

unsigned int CVMDKContentIDUpdater::changeMainFileContentID(
    CVMDKSparseExtentFile& extentFile) const {
    if (extentFile.getURI().toNormalized() == m_mainFileURI)
        return changeStoredContentID(extentFile.getStream().get());
    yx::P<yx::IIOStream> const mainFile =
        openVMDKFileStream(m_fileSystem.get(), m_mainFileURI, yx::IIOStream::ReadWrite);
    unsigned int const contentID = changeStoredContentID(mainFile.get());
    mainFile->close();
    return contentID;
}

} // namespace kelm
