#include "host/check/disk_check.h"

#include <algorithm>
#include <cassert>
#include <memory>
#include <optional>
#include <vector>

#include "host/check/check_errors.h"
#include "host/check/grain_check.h"
#include "host/digest/disk_digests.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/digest_file_name.h"
#include "host/disk/disk_record.h"
#include "host/system/name_text.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

constexpr char kOutOfDateFinding[] =
    "the digests are out of date: the disk was changed since they were made";

/// Goes through a disk and its parents, from the child to the last parent.
class DiskCheck {
public:
    DiskCheck(yx::IFileSystem* fileSystem, yx::String const& password, WorkOptions const& options,
              FindingCallback const& report, DiskTrust const& trust, CheckScope const& scope)
        : m_scope(scope),
          m_fileSystem(fileSystem),
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
            if (m_scope.ownOnly)
                return;
            if (std::find(checked.begin(), checked.end(), uri) != checked.end()) {
                find(checked.back(), "the chain of parents leads back to " + displayName(uri));
                return;
            }
        }
    }

    CheckResult const& getResult() const { return m_result; }

private:
    void find(yx::CURI const& file, std::string const& text) {
        assert(!file.isEmpty() && !text.empty());
        ++m_result.findingCount;
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
        checkContent(*disk);
        return disk->hasParent() ? disk->getDisk().getParentDiskMainURI().toNormalized()
                                 : yx::CURI();
    }

    void checkContent(SafeDisk& disk) {
        StructureCheck structure(
            m_fileSystem.get(), disk, m_options.cancel,
            [&](yx::CURI const& file, std::string const& text) { find(file, text); });
        auto const findBehindStructure = [&](yx::CURI const& file, std::string const& text) {
            structure.finish();
            find(file, text);
        };
        std::unique_ptr<DigestFile> const digests = openDigests(disk, findBehindStructure);
        GrainCounts const counts = checkGrains(disk, m_options, findBehindStructure,
                                               {structure, m_scope.sample, digests.get()});
        m_result.heldGrainCount += counts.held;
        m_result.readGrainCount += counts.read;
    }

    /// Null if there are none to compare with.
    std::unique_ptr<DigestFile> openDigests(SafeDisk& disk, FindingCallback const& find) {
        yx::CURI const uri = disk.getDisk().getMainFileURI();
        DiskDigests digests;
        auto const failure =
            findingOf([&] { digests = DiskDigests::open(m_fileSystem.get(), disk); });
        if (failure)
            find(digestFileOf(uri), "the digests cannot be used: " + *failure);
        else if (digests.state == DigestState::Missing && m_scope.needsDigests)
            find(uri, "the disk has no digests");
        else if (digests.state == DigestState::OutOfDate && m_scope.needsDigests)
            find(digestFileOf(uri), kOutOfDateFinding);
        else if (digests.state == DigestState::OutOfDate)
            m_result.outOfDate.push_back(uri);
        if (!digests.areUpToDate())
            return nullptr;
        checkImageSize(disk, *digests.file, find);
        return std::move(digests.file);
    }

    static bool hasBytesBehind(SafeDisk& disk, __int64 positionBytes) {
        yx::TBuffer<unsigned char> bytes;
        while (positionBytes < disk.getSizeBytes()) {
            __int64 const grainIndex = positionBytes / disk.getGrainSizeBytes();
            __int64 const endBytes =
                std::min((grainIndex + 1) * disk.getGrainSizeBytes(), disk.getSizeBytes());
            bytes.setUsed(static_cast<int>(endBytes - positionBytes));
            if (disk.isGrainWritten(grainIndex))
                disk.read(positionBytes, bytes.getData(), bytes.getUsed());
            if (disk.isGrainWritten(grainIndex) &&
                !yx::isAllZero(bytes.getData(), static_cast<std::size_t>(bytes.getUsed())))
                return true;
            positionBytes = endBytes;
        }
        return false;
    }

    /// What the descriptor says of it, nobody has signed.
    static void checkImageSize(SafeDisk& disk, DigestFile const& digests,
                               FindingCallback const& find) {
        __int64 const sizeBytes = digests.getHeader().imageSizeBytes;
        std::optional<__int64> recorded;
        auto const failure = findingOf([&] {
            recorded =
                DiskRecord(*disk.getDisk().getDescriptor()).getImageBytes(disk.getSizeBytes());
        });
        if (failure || !recorded || *recorded == sizeBytes)
            return;
        // Other bytes behind the recorded size make the whole disk the image.
        bool isWholeDisk = false;
        findingOf([&] { isWholeDisk = hasBytesBehind(disk, *recorded); });
        if (!isWholeDisk || sizeBytes != disk.getSizeBytes()) {
            find(disk.getDisk().getMainFileURI(),
                 "the image has " + std::to_string(*recorded) + " bytes by the descriptor, and " +
                     std::to_string(sizeBytes) + " by the digests");
        }
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

    CheckScope const& m_scope;
    yx::P<yx::IFileSystem> m_fileSystem;
    yx::String const& m_password;
    WorkOptions const& m_options;
    FindingCallback const& m_report;
    DiskTrust m_trust;
    CheckResult m_result;

    /// The content ID that the last disk expects of its parent.
    std::optional<unsigned int> m_expectedContentID;
};

} // namespace

CheckResult checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                      WorkOptions const& options, FindingCallback const& report,
                      DiskTrust const& trust, CheckScope const& scope) {
    if (!fileSystem->fileExists(uri)) {
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    DiskCheck check(fileSystem, password, options, report, trust, scope);
    check.checkChain(uri);
    return check.getResult();
}

__int64 checkDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                  WorkOptions const& options, FindingCallback const& report,
                  DiskTrust const& trust) {
    return checkDisk(fileSystem, uri, password, options, report, trust, CheckScope()).findingCount;
}

} // namespace kelm::host
