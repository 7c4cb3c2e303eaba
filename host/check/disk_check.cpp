#include "host/check/disk_check.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <optional>
#include <vector>

#include "host/check/check_errors.h"
#include "host/check/extent_check.h"
#include "host/check/grain_check.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/disk_record.h"
#include "host/system/name_text.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

/// Goes through a disk and its parents, from the child to the last parent.
class DiskCheck {
public:
    DiskCheck(yx::IFileSystem* fileSystem, yx::String const& password, WorkOptions const& options,
              FindingCallback const& report, DiskTrust const& trust)
        : m_fileSystem(fileSystem),
          m_password(password),
          m_options(options),
          m_report(report),
          m_trust(trust) {
        // That a disk is unfinished is a finding.
        m_trust.unfinished = UnfinishedDisks::InChain;
    }

    void checkChain(yx::CURI uri) {
        std::vector<yx::CURI> checked;
        while (!uri.isEmpty()) {
            if (!checked.empty() && !m_fileSystem->fileExists(uri)) {
                find(uri, "the parent does not exist");
                return;
            }
            checked.push_back(uri.toNormalized());
            uri = checkOneDisk(uri);
            if (std::find(checked.begin(), checked.end(), uri) != checked.end()) {
                find(checked.back(), "the chain of parents leads back to " + displayName(uri));
                return;
            }
        }
    }

    __int64 getFindingCount() const { return m_findingCount; }

private:
    void find(yx::CURI const& file, std::string const& text) {
        assert(!file.isEmpty() && !text.empty());
        ++m_findingCount;
        m_report(file, printable(text));
    }

    /// Returns the URI of the parent. It is empty if there is none, or if the disk cannot be
    /// opened.
    yx::CURI checkOneDisk(yx::CURI const& uri) {
        std::unique_ptr<SafeDisk> disk;
        auto const failure = findingOf([&] {
            disk = std::make_unique<SafeDisk>(m_fileSystem.get(), uri, yx::IIOStream::ReadOnly,
                                              m_password, -1, CVMDKGrainTableCache::kDefaultLimit,
                                              m_trust);
        });
        if (failure) {
            find(uri, "the disk cannot be opened: " + *failure);
            return {};
        }
        assert(disk);
        checkDescriptor(*disk);
        if (DiskRecord(*disk->getDisk().getDescriptor()).getState() == DiskState::Unfinished)
            find(uri, "the disk is unfinished: it has not been filled to its end");
        checkContentID(*disk);
        m_known = KnownGrains();
        checkExtents(*disk);
        checkGrains(
            *disk, m_options,
            [&](yx::CURI const& file, std::string const& text) { find(file, text); }, m_known);
        return disk->hasParent() ? disk->getDisk().getParentDiskMainURI().toNormalized()
                                 : yx::CURI();
    }

    void checkDescriptor(SafeDisk& disk) {
        yx::CURI const uri = disk.getDisk().getMainFileURI();
        if (getChecksumState(*disk.getDisk().getDescriptor(), uri) == ChecksumState::Different)
            find(uri, "the descriptor differs from its checksum: it is damaged, or other software "
                      "has edited it");
    }

    void checkContentID(SafeDisk& disk) {
        yx::P<CVMDKDescriptor> const descriptor = disk.getDisk().getDescriptor();
        yx::CURI const uri = disk.getDisk().getMainFileURI();
        unsigned int contentID = 0;
        auto const failure = findingOf([&] { contentID = descriptor->getContentID(); });
        if (failure) {
            find(uri, "the disk has no content ID: " + *failure);
        } else if (m_expectedContentID && contentID != *m_expectedContentID) {
            find(uri, "the parent has changed: its content ID is " +
                          yx::toHexString(contentID).toStdString() + ", the child was made of " +
                          yx::toHexString(*m_expectedContentID).toStdString());
        }
        m_expectedContentID = descriptor->getParentContentID();
    }

    void checkExtents(SafeDisk& disk) {
        for (DiskExtent const& extent : disk.listExtents()) {
            assert(extent.startBytes <= extent.endBytes);
            if (m_fileSystem->fileExists(extent.uri)) {
                checkExtentFile(extent);
            } else if (!disk.createsExtentFilesOnDemand()) {
                find(extent.uri, "the file is missing");
            }
        }
    }

    void checkExtentFile(DiskExtent const& extent) {
        yx::CURI const& uri = extent.uri;
        yx::P<yx::IIOStream> stream;
        auto const failure = findingOf([&] {
            unsigned int reserved = 0;
            stream = m_fileSystem->openFile(uri, yx::IIOStream::ReadOnly, &reserved);
        });
        if (failure) {
            find(uri, *failure);
            return;
        }
        checkExtent(
            *stream, extent, m_options.cancel, [&](std::string const& text) { find(uri, text); },
            m_known);
    }

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::String const& m_password;
    WorkOptions const& m_options;
    FindingCallback const& m_report;
    DiskTrust m_trust;
    __int64 m_findingCount = 0;

    /// Of the disk that is being checked.
    KnownGrains m_known;

    /// The content ID that the last disk expects of its parent.
    std::optional<unsigned int> m_expectedContentID;
};

} // namespace

__int64 checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                  WorkOptions const& options, FindingCallback const& report,
                  DiskTrust const& trust) {
    if (!fileSystem->fileExists(uri)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    DiskCheck check(fileSystem, password, options, report, trust);
    check.checkChain(uri);
    return check.getFindingCount();
}

} // namespace kelm::host
