#pragma once

#include "kelm/format/descriptor.h"
#include "yx/file_system.h"

namespace kelm {

class CVMDKSparseExtentFile;

/// Gives a disk a new content ID once, just before its first modification, so that a child disk can
/// detect that its parent has changed.
class KELM_API CVMDKContentIDUpdater : public yx::CBase {
public:
    /// `mainFileURI` is the file with the disk's descriptor, `descriptor` the disk's copy of it in
    /// memory.
    CVMDKContentIDUpdater(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                          CVMDKDescriptor* descriptor);

    /// Called before a sparse extent file of the disk changes. The first call while updates are
    /// enabled draws an ID and stores and flushes it in the main file, into the text that stands
    /// there: through the extent file's own stream if that is the main file, else through a stream
    /// of its own. The descriptor in memory then gets the same ID. Errors of opening, reading and
    /// writing the main file pass through, and the next call tries again.
    void onDiskAboutToChange(CVMDKSparseExtentFile& extentFile);

    /// Enabled at first.
    void setContentIDUpdatesEnabled(bool enabled) { m_updatesEnabled = enabled; }

private:
    unsigned int changeMainFileContentID(CVMDKSparseExtentFile& extentFile) const;

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_mainFileURI;
    yx::P<CVMDKDescriptor> m_descriptor;
    bool m_alreadyChanged = false;
    bool m_updatesEnabled = true;
};

} // namespace kelm
