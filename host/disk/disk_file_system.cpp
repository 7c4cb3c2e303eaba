#include "host/disk/disk_file_system.h"

#include <algorithm>
#include <utility>

#include "host/disk/digest_file_name.h"
#include "host/disk/disk_layout.h"
#include "host/disk/disk_record.h"
#include "host/disk/header_finding.h"
#include "host/disk/main_file_form.h"
#include "host/disk/own_name.h"
#include "host/disk/slot_filling_stream.h"
#include "host/disk/unfinished_disk.h"
#include "host/store/file_names.h"
#include "host/store/file_status.h"
#include "host/store/folder_sync.h"
#include "kelm/disk/disk.h"
#include "kelm/format/constants.h"
#include "kelm/format/descriptor_accessor.h"
#include "kelm/format/file_reference.h"
#include "kelm/format/sparse_extent_header.h"
#include "yx/error.h"
#include "yx/lock_file.h"
#include "yx/optimizing_io_stream.h"

namespace kelm::host {

namespace {

using Access = yx::IIOStream::Access;

/// The ranges of a lock file that its users lock; see `yx::CLockFile`.
constexpr __int64 kLockPositionBytes = 0;
constexpr __int64 kPresencePositionBytes = 1;

yx::CProps propsOf(yx::CURI const& uri) {
    return yx::CProps().add("uri", uri.toString(true));
}

[[noreturn]] void throwReplacedWhileOpen(yx::CURI const& uri) {
    throw yx::CIOError(yx::CIOError::IOFailure,
                       "The file was replaced by another one while the disk was open.",
                       propsOf(uri), nullptr);
}

/// Empty for a name that is no text, which has none.
yx::CURI lockFileOf(yx::CURI const& mainFile) {
    try {
        return CVMDKDisk::getLockFileURI(mainFile).toNormalized();
    } catch (yx::CIOError const& error) {
        error.nop();
        return {};
    }
}

/// Buffered, so that files which demand alignment get it.
yx::P<yx::IIOStream> buffered(yx::IIOStream* stream) {
    return yx::makeObject<yx::COptimizingIOStream>(stream);
}

/// The stream itself, unless it demands alignment.
yx::P<yx::IIOStream> withoutDemands(yx::P<yx::IIOStream> const& stream) {
    bool const demandsAlignment = dynamic_cast<yx::IAlignedStreamBase*>(stream.get()) != nullptr;
    return demandsAlignment ? buffered(stream.get()) : stream;
}

/// The extents of a descriptor, whose files are `files`.
std::vector<DiskExtent> describeExtents(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                                        std::vector<yx::CURI> files) {
    try {
        return listDescribedExtents(descriptor, mainFile, std::move(files), kSectorSizeBytes,
                                    false);
    } catch (yx::CIOError const& error) {
        error.nop();
        // The library refuses such a disk in its own words, before it reads where extents begin.
        std::vector<DiskExtent> extents(files.size());
        for (std::size_t i = 0; i < files.size(); ++i)
            extents[i].uri = std::move(files[i]);
        return extents;
    }
}

/// Whether an extent line of a descriptor names the main file.
bool namesFile(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile) {
    yx::TArray<yx::P<CVMDKExtentInfo>> lines;
    descriptor.getExtentEntries(lines);
    yx::CURI const folder = mainFile.getParent();
    return std::any_of(lines.begin(), lines.end(), [&](yx::P<CVMDKExtentInfo> const& line) {
        return isReferenceTo(folder, line->getFilename(), mainFile);
    });
}

/// The area of a descriptor that lies in an extent file and has been found sound.
yx::P<Overlay> readArea(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header) {
    yx::P<Overlay> area = yx::makeObject<Overlay>();
    area->positionBytes =
        static_cast<__int64>(header.getDescriptorOffsetSectors()) * kSectorSizeBytes;
    area->bytes.resize(header.getDescriptorSizeSectors() * kSectorSizeBytes);
    stream.seek(area->positionBytes);
    stream.read(area->bytes.data(), static_cast<int>(area->bytes.size()));
    return area;
}

} // namespace

DiskFileSystem::Member::Member(yx::CURI const& uri, yx::IIOStream::Access wanted,
                               DiskTrust const& trust)
    : mainFile(uri), lockFile(lockFileOf(uri)), access(wanted), reach(uri, trust) {}

DiskFileSystem::DiskFileSystem(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                               yx::IIOStream::Access access, DiskTrust const& trust,
                               FileLocks* locks)
    : m_fileSystem(fileSystem), m_trust(trust), m_locks(locks) {
    if (!m_locks)
        m_locks = yx::makeObject<FileLocks>();
    yx::CURI const uri = mainFile.toNormalized();
    m_members.emplace_back(uri, access, trust);
}

DiskFileSystem::Member* DiskFileSystem::findMain(yx::CURI const& uri) {
    auto const found = std::find_if(m_members.begin(), m_members.end(),
                                    [&](Member const& each) { return each.mainFile == uri; });
    return found == m_members.end() ? nullptr : &*found;
}

DiskFileSystem::Member* DiskFileSystem::findByLockFile(yx::CURI const& uri) {
    auto const found = std::find_if(m_members.begin(), m_members.end(),
                                    [&](Member const& member) { return member.lockFile == uri; });
    return found == m_members.end() ? nullptr : &*found;
}

/// A file that no descriptor names is judged as if the disk's own did.
DiskFileSystem::Member& DiskFileSystem::ownerOf(yx::CURI const& uri) {
    auto const extent = m_extents.find(uri);
    return m_members[extent == m_extents.end() ? 0 : extent->second.member];
}

yx::P<yx::IIOStream> DiskFileSystem::openBelow(yx::CURI const& uri, Access access,
                                               unsigned int options) {
    return m_fileSystem->openFile(uri, access, &options);
}

/// Opens a file that a disk has, and remembers which one it is.
yx::P<yx::IIOStream> DiskFileSystem::openSame(yx::CURI const& uri, yx::CURI const& name,
                                              Access access, unsigned int options) {
    if (m_opened.contains(name))
        options |= DoNotMakeFile;
    yx::P<yx::IIOStream> stream = openBelow(uri, access, options);
    std::optional<FileIdentity> const identity = identifyStream(*stream);
    if (isReplaced(name, identity))
        throwReplacedWhileOpen(uri);
    if (identity)
        m_opened.try_emplace(name).first->second.identity = identity;
    return stream;
}

yx::P<yx::IIOStream> DiskFileSystem::openAndLock(Member const& member, yx::CURI const& uri,
                                                 yx::CURI const& name, Access access,
                                                 unsigned int options) {
    bool const isOnlyRead =
        access == yx::IIOStream::ReadOnly && member.access == yx::IIOStream::ReadOnly;
    if (isOnlyRead) {
        if (yx::P<yx::IIOStream> kept = tryOpenKept(uri, name))
            return kept;
    }
    if (isOnlyRead && options == 0 && !m_opened.contains(name))
        return openKept(uri, name);
    yx::P<yx::IIOStream> stream = openSame(uri, name, access, options);
    lock(member, uri);
    return stream;
}

/// Opens a file for the first time, which is only read.
yx::P<yx::IIOStream> DiskFileSystem::openKept(yx::CURI const& uri, yx::CURI const& name) {
    yx::P<KeptFile> const file =
        yx::makeObject<KeptFile>(withoutDemands(openBelow(uri, yx::IIOStream::ReadOnly)));
    if (file->getFileDescriptor() >= 0 && uri.getScheme() == "file")
        m_locks->take(uri, file, FileLock::Type::Shared);
    else if (file->identify())
        m_locks->take(uri, file->getStream(), FileLock::Type::Shared);
    else
        m_locks->take(uri, FileLock::Type::Shared);
    if (!m_isOpening && !findMain(name))
        file->forgetStart();
    Opened& opened = m_opened.try_emplace(name).first->second;
    opened.kept = file;
    opened.streamCount = 1;
    return file->openStream();
}

/// Another stream on a file that is open, if there is one and it still has its name. The library
/// looks at a main file twice while it opens a disk. Where nobody can tell whether the name is still
/// the file's, it is opened anew from then on.
yx::P<yx::IIOStream> DiskFileSystem::tryOpenKept(yx::CURI const& uri, yx::CURI const& name) {
    auto const found = m_opened.find(name);
    if (found == m_opened.end() || !found->second.kept)
        return {};
    Opened& opened = found->second;
    yx::P<KeptFile> const file = opened.kept;
    constexpr int kStreamsOfOpening = 2;
    if (++opened.streamCount > kStreamsOfOpening)
        file->forgetStart();
    if (file->keepsStart())
        return file->openStream();
    std::optional<FileIdentity> const own = identify(opened);
    if (!own)
        opened.kept.reset();
    return own && own == identifyFile(uri) ? file->openStream() : yx::P<yx::IIOStream>();
}

std::optional<FileIdentity> DiskFileSystem::identify(Opened& opened) {
    if (!opened.identity && opened.kept)
        opened.identity = opened.kept->identify();
    return opened.identity;
}

void DiskFileSystem::endOpening() {
    m_isOpening = false;
    for (auto& [name, opened] : m_opened) {
        if (opened.kept)
            opened.kept->forgetStart();
    }
}

/// Whether a file is there, but not the one that was opened.
bool DiskFileSystem::isReplaced(yx::CURI const& name, std::optional<FileIdentity> const& identity) {
    auto const opened = m_opened.find(name);
    if (!identity || opened == m_opened.end())
        return false;
    std::optional<FileIdentity> const known = identify(opened->second);
    return known && known != identity;
}

bool DiskFileSystem::isReplaced(yx::CURI const& uri) {
    yx::CURI const name = uri.toNormalized();
    return m_opened.contains(name) && isReplaced(name, identifyFile(uri));
}

yx::P<yx::IIOStream> DiskFileSystem::openFile(yx::CURI const& uri, Access access,
                                              unsigned int* options) {
    yx::CURI const name = uri.toNormalized();
    unsigned int const wanted = options ? *options : 0;
    if (Member* const member = findMain(name))
        return openMainFile(*member, uri, access, wanted);
    if (Member* const member = findByLockFile(name))
        return openLockFile(*member, uri, access, wanted);
    return openExtentFile(uri, access, wanted);
}

bool DiskFileSystem::fileExists(yx::CURI const& uri) {
    yx::CURI const name = uri.toNormalized();
    return !m_hidden.contains(name) && m_fileSystem->fileExists(uri) &&
           !m_unfinished.contains(*m_fileSystem, name);
}

void DiskFileSystem::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    if (!findByLockFile(uri.toNormalized()))
        verifyMayRemove(uri);
    if (isReplaced(uri)) {
        // What is to be deleted is missing.
        if (ignoreMissing)
            return;
        throwReplacedWhileOpen(uri);
    }
    m_fileSystem->deleteFile(uri, ignoreMissing);
    m_opened.erase(uri.toNormalized());
}

void DiskFileSystem::moveFile(yx::CURI const& from, yx::CURI const& to) {
    verifyMayRemove(from);
    if (isReplaced(from))
        throwReplacedWhileOpen(from);
    host::moveFile(m_fileSystem.get(), from, to);
    m_opened.erase(from.toNormalized());
}

void DiskFileSystem::deleteDigests() {
    yx::CURI const file = digestFileOf(m_members.front().mainFile);
    if (!m_fileSystem->fileExists(file))
        return;
    voidDigestFile(m_fileSystem.get(), file);
    m_fileSystem->deleteFile(file, true);
    syncFolder(file.getParent());
}

void DiskFileSystem::verifyMayRemove(yx::CURI const& uri) {
    yx::CURI const name = uri.toNormalized();
    Member const* const main = findMain(name);
    Member const& owner = main ? *main : ownerOf(name);
    verifyMayChange(owner, uri);
    owner.reach.verifyExtent(name);
}

void DiskFileSystem::verifyMayChange(Member const& member, yx::CURI const& uri) const {
    if (&member == &m_members.front())
        return;
    throw yx::CIOError(yx::CIOError::NotAllowed, "A file of a parent disk is only read.",
                       propsOf(uri), nullptr);
}

bool DiskFileSystem::lock(Member const& member, yx::CURI const& uri) {
    return m_locks->take(uri, member.access == yx::IIOStream::ReadWrite ? FileLock::Type::Exclusive
                                                                        : FileLock::Type::Shared);
}

yx::P<yx::IIOStream> DiskFileSystem::openMainFile(Member& member, yx::CURI const& uri,
                                                  Access access, unsigned int options) {
    if (member.refusal)
        std::rethrow_exception(std::exchange(member.refusal, nullptr));
    if (access != yx::IIOStream::ReadOnly)
        verifyMayChange(member, uri);
    if (&member != &m_members.front())
        DiskReach::verifyParent(member.mainFile);
    yx::P<yx::IIOStream> stream = openAndLock(member, uri, member.mainFile, access, options);
    // `learn` adds a member, and with it moves this one.
    std::size_t const index = static_cast<std::size_t>(&member - m_members.data());
    // An empty file is one that the library is making.
    if (!member.isKnown && stream->getLength() > 0)
        learn(member, stream.get());
    if (access == yx::IIOStream::ReadOnly)
        stream = fillSlots(m_members[index].mainFile, stream);
    yx::P<Overlay> const overlay = m_members[index].overlay;
    return overlay ? yx::makeObject<OverlaidStream>(withoutDemands(stream), overlay) : stream;
}

yx::P<yx::IIOStream> DiskFileSystem::openExtentFile(yx::CURI const& uri, Access access,
                                                    unsigned int options) {
    yx::CURI const name = uri.toNormalized();
    Member const& owner = ownerOf(name);
    if (access != yx::IIOStream::ReadOnly)
        verifyMayChange(owner, uri);
    owner.reach.verifyExtent(name);
    yx::P<yx::IIOStream> stream = openAndLock(owner, uri, name, access, options);
    verifyGrainSize(owner, name, *stream);
    return access == yx::IIOStream::ReadOnly ? fillSlots(name, stream) : stream;
}

/// Only the file of an extent has slots.
yx::P<yx::IIOStream> DiskFileSystem::fillSlots(yx::CURI const& name,
                                               yx::P<yx::IIOStream> const& stream) const {
    auto const extent = m_extents.find(name);
    if (extent == m_extents.end())
        return stream;
    return SlotFillingStream::over(withoutDemands(stream), extent->second.startBytes);
}

void DiskFileSystem::verifyGrainSize(Member const& member, yx::CURI const& uri,
                                     yx::IIOStream& stream) {
    // A file without a header yet is being made.
    if (m_trust.allowOversize || m_judged.contains(uri) || stream.getLength() < kSectorSizeBytes)
        return;
    m_judged.insert(uri);
    if (std::optional<CVMDKSparseExtentHeader> const header = tryReadHeader(*buffered(&stream)))
        member.reach.verifyGrainSize(uri, header->getGrainSizeSectors());
    stream.seek(0);
}

/// Looks at the descriptor of the file.
DiskFileSystem::Plan DiskFileSystem::readPlan(Member const& member, yx::IIOStream* stream) {
    yx::P<yx::IIOStream> const in = buffered(stream);
    verifyIsExtentOrText(*in, member.mainFile);
    yx::P<CVMDKDescriptorAccessor> const accessor =
        yx::makeObject<CVMDKDescriptorAccessor>(in.get(), yx::IIOStream::ReadOnly);
    yx::P<CVMDKDescriptor> descriptor = accessor->getDescriptor();
    Plan plan;
    if (accessor->getEmbeddedInSparseExtentFile()) {
        CVMDKSparseExtentHeader const header = *tryReadHeader(*in);
        member.reach.verifyGrainSize(member.mainFile, header.getGrainSizeSectors());
        yx::P<Overlay> const area =
            namesFile(*descriptor, member.mainFile) ? yx::P<Overlay>() : readArea(*in, header);
        auto corrected = area ? correctOwnName(area->bytes, member.mainFile) : std::nullopt;
        if (corrected) {
            area->bytes = std::move(*corrected);
            plan.overlay = area;
            yx::TBuffer<unsigned char> text(static_cast<int>(area->bytes.size()), -1);
            std::copy(area->bytes.begin(), area->bytes.end(), text.getData());
            descriptor = yx::makeObject<CVMDKDescriptor>(text);
        }
    }
    stream->seek(0);
    plan.extents = describeExtents(*descriptor, member.mainFile,
                                   member.reach.verifyExtents(*descriptor, *m_fileSystem));
    verifyIsFinished(member, *descriptor);
    plan.descriptor = descriptor;
    plan.isOfDisk = !plan.extents.empty() && descriptor->hasValue("createType");
    yx::String hint;
    if (descriptor->getParentContentID() != kNoParentContentID &&
        descriptor->tryGetParentFileNameHint(hint))
        plan.parent = vmdkFileReferenceToURI(member.mainFile.getParent(), hint);
    return plan;
}

void DiskFileSystem::verifyIsFinished(Member const& member, CVMDKDescriptor& descriptor) const {
    bool const isDisk = &member == &m_members.front();
    DiskTrust const trust = isDisk ? m_trust : m_trust.ofParents();
    if (trust.unfinished == UnfinishedDisks::Refused &&
        DiskRecord(descriptor).getState() == DiskState::Unfinished)
        throw UnfinishedDiskError(member.mainFile);
}

/// Notes what the descriptor says. The members move.
void DiskFileSystem::learn(Member& member, yx::IIOStream* stream) {
    Plan plan = readPlan(member, stream);
    std::size_t const index = static_cast<std::size_t>(&member - m_members.data());
    if (member.access == yx::IIOStream::ReadOnly)
        m_unfinished.addDisk(*plan.descriptor, member.mainFile, plan.extents);
    // Extents of many files mostly have names in order.
    for (DiskExtent& extent : plan.extents) {
        m_extents.try_emplace(m_extents.end(), std::move(extent.uri),
                              Extent{index, extent.startBytes});
    }
    member.overlay = plan.overlay;
    member.isKnown = true;
    if (plan.parent && !findMain(*plan.parent))
        m_members.emplace_back(*plan.parent, yx::IIOStream::ReadOnly, m_trust);
}

/// Before anything is made beside a parent.
void DiskFileSystem::verifyIsDisk(Member const& member) {
    if (&member == &m_members.front() || member.isKnown)
        return;
    DiskReach::verifyParent(member.mainFile);
    if (!readPlan(member, openBelow(member.mainFile, yx::IIOStream::ReadOnly).get()).isOfDisk) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The parent is no disk.",
                           propsOf(member.mainFile), nullptr);
    }
}

yx::P<yx::IIOStream> DiskFileSystem::openLockFile(Member& member, yx::CURI const& uri,
                                                  Access access, unsigned int options) {
    try {
        verifyIsDisk(member);
    } catch (yx::CError const& error) {
        error.nop();
        // Without a lock file in sight the library goes on to the main file, and gets the error
        // there as it is.
        member.refusal = std::current_exception();
        m_hidden.insert(uri.toNormalized());
        throw;
    }
    m_hidden.erase(uri.toNormalized());
    try {
        return openBelow(uri, access, options);
    } catch (yx::CIOError const& error) {
        error.nop();
        if (error.getIOCode() == yx::CIOError::AccessDenied && access == yx::IIOStream::ReadWrite)
            goOnWithoutWriting(member, uri);
        throw;
    }
}

void DiskFileSystem::goOnWithoutWriting(Member const& member, yx::CURI const& lockFile) {
    if (member.access != yx::IIOStream::ReadOnly || !m_fileSystem->fileExists(lockFile))
        return;
    if (tryJoinLockFile(lockFile) || lock(member, member.mainFile))
        m_hidden.insert(lockFile.toNormalized());
}

/// Shares the lock and the presence of the lock file's users. False if the file cannot be read, or
/// has no locks.
bool DiskFileSystem::tryJoinLockFile(yx::CURI const& lockFile) {
    yx::P<yx::IIOStream> stream;
    try {
        stream = openBelow(lockFile, yx::IIOStream::ReadOnly, DoNotFollowLink);
    } catch (yx::CIOError const&) {
        return false;
    }
    try {
        for (__int64 const positionBytes : {kLockPositionBytes, kPresencePositionBytes})
            m_joined.push_back(stream->lockRange(positionBytes, 1, yx::IStreamBase::Shared));
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() != yx::CIOError::AccessDenied)
            return false;
        throw yx::CLockFileError(yx::kLockFileInUseMessage, propsOf(lockFile), &error);
    }
    return true;
}

void DiskFileSystem::storeOwnName() {
    Member const& disk = m_members.front();
    if (!disk.overlay)
        return;
    yx::P<yx::IIOStream> const stream =
        buffered(openSame(disk.mainFile, disk.mainFile, yx::IIOStream::ReadWrite).get());
    std::vector<unsigned char> const& wanted = disk.overlay->bytes;
    std::vector<unsigned char> present(wanted.size());
    stream->seek(disk.overlay->positionBytes);
    stream->read(present.data(), static_cast<int>(present.size()));
    auto const [firstWanted, firstPresent] =
        std::mismatch(wanted.begin(), wanted.end(), present.begin());
    if (firstWanted == wanted.end())
        return;
    auto const first = (firstWanted - wanted.begin()) / kSectorSizeBytes * kSectorSizeBytes;
    auto const end = std::min<std::ptrdiff_t>(first + kSectorSizeBytes,
                                              static_cast<std::ptrdiff_t>(wanted.size()));
    if (!std::equal(wanted.begin() + end, wanted.end(), present.begin() + end))
        return;
    stream->seek(disk.overlay->positionBytes + first);
    stream->write(wanted.data() + first, static_cast<int>(end - first), nullptr);
    stream->flush();
    stream->close();
}

} // namespace kelm::host
