#include "host/disk_check.h"

#include <algorithm>
#include <vector>

#include "host/extent_check.h"
#include "host/password_errors.h"
#include "kelm/format/constants.h"
#include "kelm/format/file_reference.h"

namespace kelm::host {

namespace {

constexpr int kMaxChainLength = 255;

/// Whether an error tells of the caller's situation, not of the disk's state.
bool isNoFinding(yx::CError const& error) {
    return dynamic_cast<CancelledError const*>(&error) ||
           dynamic_cast<yx::CLockFileError const*>(&error) || isPasswordMissing(error) ||
           isPasswordWrong(error);
}

class DiskCheck {
public:
    DiskCheck(yx::IFileSystem* fileSystem, yx::String const& password,
              TransferOptions const& options, FindingCallback const& report)
        : m_fileSystem(fileSystem),
          m_password(password),
          m_options(options),
          m_throttle(options.progress),
          m_report(report) {}

    void checkChain(yx::CURI uri) {
        for (int length = 0; !uri.isEmpty(); ++length) {
            if (length == kMaxChainLength) {
                find(uri, "the chain of parents is too long");
                return;
            }
            if (length > 0 && !m_fileSystem->fileExists(uri)) {
                find(uri, "the parent does not exist");
                return;
            }
            uri = checkOneDisk(uri);
        }
    }

    __int64 getFindingCount() const { return m_findingCount; }

private:
    void find(yx::CURI const& file, std::string const& text) {
        ++m_findingCount;
        m_report(file, text);
    }

    /// Runs a part of the check; an error that it ends with is a finding about `file`.
    template <class Step>
    void attempt(yx::CURI const& file, std::string const& what, Step const& step) {
        try {
            step();
        } catch (yx::CError const& error) {
            if (isNoFinding(error))
                throw;
            find(file, what + error.getMessage().toStdString());
        }
    }

    /// Returns the URI of the parent, empty if there is none or it cannot be known.
    yx::CURI checkOneDisk(yx::CURI const& uri) {
        yx::CURI parent;
        attempt(uri, "the disk cannot be opened: ", [&] {
            SafeDisk disk(m_fileSystem.get(), uri, yx::IIOStream::ReadOnly, m_password);
            checkContentID(disk);
            parent = disk.getDisk().getParentDiskMainURI();
            checkExtents(disk);
            checkGrains(disk);
        });
        return parent;
    }

    void checkContentID(SafeDisk& disk) {
        yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
        unsigned int const contentID = descriptor->getContentID();
        if (m_childIsKnown && contentID != m_expectedContentID) {
            find(disk.getDisk().getMainFileURI(),
                 "the parent has changed: its content ID is " +
                     yx::toHexString(contentID).toStdString() + ", the child was made of " +
                     yx::toHexString(m_expectedContentID).toStdString());
        }
        m_childIsKnown = true;
        m_expectedContentID = descriptor->getParentContentID();
    }

    void checkExtents(SafeDisk& disk) {
        yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
        yx::CURI const folder = disk.getDisk().getMainFileURI().getParent();
        yx::TArray<yx::P<CVMDKExtentInfo>> infos;
        descriptor->getExtentEntries(infos);
        __int64 startSectors = 0;
        __int64 const grainSizeSectors = disk.getGrainSizeBytes() / kSectorSizeBytes;
        for (yx::P<CVMDKExtentInfo> const& info : infos) {
            yx::CURI const uri = vmdkFileReferenceToURI(folder, info->getFilename());
            bool const mayBeMissing = descriptor->getYxCreateExtentFilesOnDemand();
            if (m_fileSystem->fileExists(uri)) {
                checkExtentFile(uri, {info->getSizeSectors(),
                                      (startSectors + grainSizeSectors - 1) / grainSizeSectors});
            } else if (!mayBeMissing) {
                find(uri, "the file is missing");
            }
            startSectors += info->getSizeSectors();
        }
    }

    void checkExtentFile(yx::CURI const& uri, ExtentPlace const& place) {
        attempt(uri, "", [&] {
            unsigned int reserved = 0;
            yx::P<yx::IIOStream> const stream =
                m_fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &reserved);
            checkExtent(*stream, place, m_options.cancel,
                        [&](std::string const& text) { find(uri, text); });
        });
    }

    /// Decodes every grain that the disk itself holds. Those of the parents come with the parents.
    void checkGrains(SafeDisk& disk) {
        yx::TBuffer<unsigned char> grain(static_cast<int>(disk.getGrainSizeBytes()), -1);
        for (__int64 index = 0; index < disk.getGrainCount(); ++index) {
            __int64 const startBytes = index * disk.getGrainSizeBytes();
            if (m_options.cancel)
                m_options.cancel->check();
            m_throttle.report(startBytes, disk.getSizeBytes());
            attempt(disk.getDisk().getMainFileURI(), "grain " + std::to_string(index) + ": ", [&] {
                if (disk.isGrainWrittenHere(index)) {
                    disk.read(startBytes, grain.getData(),
                              static_cast<int>(std::min(disk.getGrainSizeBytes(),
                                                        disk.getSizeBytes() - startBytes)));
                }
            });
        }
    }

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::String const& m_password;
    TransferOptions const& m_options;
    ProgressThrottle m_throttle;
    FindingCallback const& m_report;
    __int64 m_findingCount = 0;
    bool m_childIsKnown = false;
    unsigned int m_expectedContentID = 0;
};

} // namespace

__int64 checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                  TransferOptions const& options, FindingCallback const& report) {
    if (!fileSystem->fileExists(uri)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    DiskCheck check(fileSystem, password, options, report);
    check.checkChain(uri);
    return check.getFindingCount();
}

} // namespace kelm::host
