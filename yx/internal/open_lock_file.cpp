#include "yx/internal/open_lock_file.h"

#include <cassert>
#include <string_view>
#include <typeinfo>

#include <fcntl.h>
#include <sys/stat.h>

#include "yx/error.h"
#include "yx/internal/file_descriptor.h"
#include "yx/internal/native_file_stream.h"
#include "yx/internal/native_range_locks.h"
#include "yx/internal/stream_error.h"
#include "yx/mt_rand.h"
#include "yx/native_file_system.h"
#include "yx/native_stream.h"
#include "yx/number.h"

namespace yx::detail {

namespace {

constexpr __int64 kLockPosition = 0;
constexpr __int64 kPresencePosition = 1;
constexpr __int64 kLockedRangeBytes = 1;
static_assert(kPresencePosition == kLockPosition + kLockedRangeBytes,
              "a shared lock and the presence are one range");

constexpr std::string_view kMarkPrefix = "kelm dead lock: ";
constexpr std::size_t kMarkDigits = 16;
constexpr std::size_t kMarkSizeBytes = kMarkPrefix.size() + kMarkDigits;

/// From the operating system, so that processes forked from one do not draw the same numbers.
std::string drawMark() {
    TBuffer<unsigned char> number(kMarkDigits / 2, -1);
    CMTRand::drawGlobalData(number.getData(), number.getUsed());
    return std::string(kMarkPrefix) + hexEncode(number).toStdString();
}

/// No other file of the device has this number.
std::string markOf(unsigned long long inode) {
    static_assert(kMarkDigits == 2 * sizeof inode);
    std::string digits(kMarkDigits, '0');
    for (auto digit = digits.rbegin(); inode != 0; ++digit, inode >>= 4U)
        *digit = "0123456789abcdef"[inode & 0xFU];
    return std::string(kMarkPrefix) + digits;
}

/// The content from the start on; of a file that is longer than a mark, one byte more than that.
std::string readStart(IInStream& stream) {
    std::string content(kMarkSizeBytes + 1, '\0');
    stream.seek(0);
    int const count = stream.readLax(content.data(), static_cast<int>(content.size()));
    content.resize(static_cast<std::size_t>(count));
    return content;
}

/// Whether a file holds a mark, or what a power cut can leave of one: bytes that did not reach the
/// device are zeros, or missing at the end.
bool isMark(std::string_view content) {
    if (content.size() > kMarkSizeBytes)
        return false;
    for (std::size_t at = 0; at < content.size(); ++at) {
        char const character = content[at];
        bool const isOfMark =
            at < kMarkPrefix.size() ? character == kMarkPrefix[at] : hexDigitValue(character) >= 0;
        if (character != '\0' && !isOfMark)
            return false;
    }
    return true;
}

P<IIOStream> open(IFileSystem& fileSystem, CURI const& uri, IIOStream::Access access) {
    unsigned int options = IFileSystem::DoNotFollowLink;
    return fileSystem.openFile(uri, access, &options);
}

P<IIOStream> openOrMake(IFileSystem& fileSystem, CURI const& uri) {
    try {
        return open(fileSystem, uri, IIOStream::ReadWrite);
    } catch (CIOError const& error) {
        if (error.getIOCode() != CIOError::NotAllowed)
            throw;
        throw CLockFileError("The name of the lock file belongs to a symbolic link.",
                             makeUriProps(uri), &error);
    }
}

} // namespace

P<IIOStream> OpenLockFile::tryMake(IFileSystem& fileSystem, CURI const& uri) {
    if (typeid(fileSystem) != typeid(CNativeFileSystem))
        return {};
    std::string const path = toNativePath(uri).toStdString();
    auto descriptor = std::make_shared<FileDescriptor>(
        openDescriptor(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW));
    if (descriptor->get() < 0)
        return {};
    struct stat status {};
    status.st_mode = S_IFREG;
    return makeObject<CNativeFileStream>(std::move(descriptor), status, uri, path,
                                         IIOStream::ReadWrite, NativeFlush::ToSystem);
}

OpenLockFile::OpenLockFile(IFileSystem* fileSystem, CURI const& uri, P<IIOStream> const& made)
    : m_fileSystem(fileSystem), m_uri(uri), m_stream(made ? made : openOrMake(*fileSystem, uri)) {}

bool OpenLockFile::tryEnter(IStreamBase::LockType type) {
    assert(!m_presence && !m_lock);
    m_type = type;
    if (type == IStreamBase::Shared)
        m_lock = m_presence = tryLock(kLockPosition, 2 * kLockedRangeBytes, type);
    // Who is in the way may hold only one of the two.
    if (!m_presence)
        m_presence = tryLockPresence(IStreamBase::Shared);
    if (!m_presence)
        return false;
    switch (readState()) {
    case State::Alive:
        return true;
    case State::Dead:
        // The party that was removing it is gone; it may have crashed.
        if (becomeAloneOnNamedFile())
            m_stream->setLength(0);
        return false;
    case State::Foreign:
        break;
    }
    throw CLockFileError("The name of the lock file belongs to another file.", makeUriProps(m_uri),
                         nullptr);
}

void OpenLockFile::lock() {
    assert(m_presence);
    if (!m_lock)
        m_lock = m_stream->lockRange(kLockPosition, kLockedRangeBytes, m_type);
}

void OpenLockFile::removeIfAlone() {
    if (!becomeAloneOnNamedFile())
        return;
    m_fileSystem->deleteFile(m_uri, true);
    leaveLocksToEndOfFile();
}

void OpenLockFile::removeUnlocked() {
    if (readState() == State::Alive)
        m_fileSystem->deleteFile(m_uri, true);
}

/// Null if others are in the way.
P<IStreamLock> OpenLockFile::tryLock(__int64 position, __int64 length, IStreamBase::LockType type) {
    try {
        return m_stream->lockRange(position, length, type);
    } catch (CIOError const& error) {
        if (error.getIOCode() != CIOError::AccessDenied)
            throw;
        return {};
    }
}

P<IStreamLock> OpenLockFile::tryLockPresence(IStreamBase::LockType type) {
    return tryLock(kPresencePosition, kLockedRangeBytes, type);
}

OpenLockFile::State OpenLockFile::readState() {
    return getLengthAndIdentity() == 0 ? State::Alive : readContentState();
}

/// One question for both, where the stream is on a file of the operating system.
__int64 OpenLockFile::getLengthAndIdentity() {
    INativeStream const* native = asNativeFileStream(m_stream.get());
    if (!native)
        native = dynamic_cast<INativeStream const*>(m_stream.get());
    struct stat opened {};
    if (!native || ::fstat(native->getFileDescriptor(), &opened) != 0)
        return m_stream->getLength();
    m_identity = Identity{opened.st_dev, opened.st_ino};
    return opened.st_size;
}

OpenLockFile::State OpenLockFile::readContentState() {
    std::string const content = readStart(*m_stream);
    if (content.empty())
        return State::Alive;
    return isMark(content) ? State::Dead : State::Foreign;
}

/// Whether nobody else is present on the file. A shared lock may go with the share of the presence.
bool OpenLockFile::becomeAlone() {
    if (P<IStreamLock> const presence = tryLockPresence(IStreamBase::Exclusive)) {
        m_presence = presence;
        return true;
    }
    // Given up first: of two that ask for more than they hold, neither would ever get it.
    if (m_lock == m_presence)
        m_lock.reset();
    m_presence.reset();
    m_presence = tryLockPresence(IStreamBase::Exclusive);
    return static_cast<bool>(m_presence);
}

/// Whether nobody else is present on the file, and it is the one that has the name; it is dead
/// then.
bool OpenLockFile::becomeAloneOnNamedFile() {
    if (!becomeAlone())
        return false;
    bool const hasName = isKnownToHaveName();
    // Somebody who knows nothing of lock files may have written to it.
    if (!m_isKnownEmpty && readState() == State::Foreign)
        return false;
    std::string const mark = writeMark(hasName);
    return hasName || isContentOfNamedFile(mark);
}

/// Whether the system says that the open file is the one at the name; false where it is not asked.
/// What has the name keeps it, since only one who is alone on it takes it away.
bool OpenLockFile::isKnownToHaveName() {
    struct stat named {};
    m_isKnownEmpty = false;
    if (!m_identity || m_uri.getScheme() != "file" ||
        ::lstat(toNativePath(m_uri).toStdString().c_str(), &named) != 0 ||
        named.st_dev != m_identity->device || named.st_ino != m_identity->inode)
        return false;
    m_isKnownEmpty = named.st_size == 0;
    return true;
}

/// Who has the file open without a name finds it dead, whether it is locked or not.
void OpenLockFile::leaveLocksToEndOfFile() {
    for (P<IStreamLock> const& lock : {m_lock, m_presence}) {
        if (auto* const ending = dynamic_cast<IEndingLock*>(lock.get()))
            ending->leaveToEndOfFile();
    }
}

std::string OpenLockFile::writeMark(bool hasName) {
    std::string mark = hasName ? markOf(m_identity->inode) : drawMark();
    assert(isMark(mark));
    try {
        m_stream->seek(0);
        m_stream->write(mark.data(), static_cast<int>(mark.size()), nullptr);
    } catch (CIOError const& error) {
        if (error.getIOCode() != CIOError::NoSpace)
            throw;
        // Zeros that were never written take no space on a device that is full.
        mark.assign(kMarkSizeBytes, '\0');
        m_stream->setLength(0);
        m_stream->setLength(static_cast<__int64>(mark.size()));
    }
    return mark;
}

bool OpenLockFile::isContentOfNamedFile(std::string const& content) {
    try {
        return readStart(*open(*m_fileSystem, m_uri, IIOStream::ReadOnly)) == content;
    } catch (CIOError const& error) {
        bool const isGone = error.getIOCode() == CIOError::NotFound;
        bool const isLink = error.getIOCode() == CIOError::NotAllowed;
        if (!isGone && !isLink)
            throw;
        return false;
    }
}

} // namespace yx::detail
