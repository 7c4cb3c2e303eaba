#include "yx/internal/open_lock_file.h"

#include <cassert>
#include <string_view>

#include "yx/error.h"
#include "yx/internal/stream_error.h"
#include "yx/mt_rand.h"
#include "yx/number.h"

namespace yx::detail {

namespace {

constexpr __int64 kLockPosition = 0;
constexpr __int64 kPresencePosition = 1;
constexpr __int64 kLockedRangeBytes = 1;

constexpr std::string_view kMarkPrefix = "kelm dead lock: ";
constexpr std::size_t kMarkDigits = 16;
constexpr std::size_t kMarkSizeBytes = kMarkPrefix.size() + kMarkDigits;

/// From the operating system, so that processes forked from one do not draw the same numbers.
std::string drawMark() {
    TBuffer<unsigned char> number(kMarkDigits / 2, -1);
    CMTRand::drawGlobalData(number.getData(), number.getUsed());
    return std::string(kMarkPrefix) + hexEncode(number).toStdString();
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

OpenLockFile::OpenLockFile(IFileSystem* fileSystem, CURI const& uri)
    : m_fileSystem(fileSystem), m_uri(uri), m_stream(openOrMake(*fileSystem, uri)) {}

bool OpenLockFile::tryEnter() {
    assert(!m_presence && !m_lock);
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

void OpenLockFile::lock(IStreamBase::LockType type) {
    assert(m_presence && !m_lock);
    m_lock = m_stream->lockRange(kLockPosition, kLockedRangeBytes, type);
}

void OpenLockFile::removeIfAlone() {
    if (becomeAloneOnNamedFile())
        m_fileSystem->deleteFile(m_uri, true);
}

void OpenLockFile::removeUnlocked() {
    if (readState() == State::Alive)
        m_fileSystem->deleteFile(m_uri, true);
}

/// Null if others are in the way.
P<IStreamLock> OpenLockFile::tryLockPresence(IStreamBase::LockType type) {
    try {
        return m_stream->lockRange(kPresencePosition, kLockedRangeBytes, type);
    } catch (CIOError const& error) {
        if (error.getIOCode() != CIOError::AccessDenied)
            throw;
        return {};
    }
}

OpenLockFile::State OpenLockFile::readState() {
    if (m_stream->getLength() == 0)
        return State::Alive;
    std::string const content = readStart(*m_stream);
    if (content.empty())
        return State::Alive;
    return isMark(content) ? State::Dead : State::Foreign;
}

/// Whether nobody else is present on the file, and it is the one that has the name; it is dead
/// then.
bool OpenLockFile::becomeAloneOnNamedFile() {
    // Given up first: of two that ask for more than they hold, neither would ever get it.
    m_presence.reset();
    m_presence = tryLockPresence(IStreamBase::Exclusive);
    // Somebody who knows nothing of lock files may have written to it.
    if (!m_presence || readState() == State::Foreign)
        return false;
    return isContentOfNamedFile(writeMark());
}

std::string OpenLockFile::writeMark() {
    std::string mark = drawMark();
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
