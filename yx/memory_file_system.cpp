#include "yx/memory_file_system.h"

#include <cerrno>
#include <limits>
#include <map>
#include <mutex>

#include "yx/internal/file_error.h"
#include "yx/internal/memory_file_stream.h"
#include "yx/internal/stream_error.h"

namespace yx {

namespace {

/// The one spelling of a file's URI. A relative reference names no file here.
CURI toFileKey(CURI const& uri) {
    if (!uri.isAbsolute()) {
        throw CIOError(CIOError::NotSupported, "The URI of a file in memory must be absolute.",
                       detail::makeUriProps(uri), nullptr);
    }
    return uri.toNormalized();
}

bool namesFolder(CURI const& key) {
    return key.getPath().wx().EndsWith(L"/");
}

} // namespace

struct CMemoryFileSystem::State {
    std::mutex mutex;
    std::map<CURI, std::shared_ptr<detail::MemoryFile>> files;

    /// Null if there is no such file.
    std::shared_ptr<detail::MemoryFile> find(CURI const& key) {
        std::lock_guard const lock(mutex);
        auto const file = files.find(key);
        return file == files.end() ? nullptr : file->second;
    }

    std::shared_ptr<detail::MemoryFile> findOrMake(CURI const& key) {
        std::lock_guard const lock(mutex);
        std::shared_ptr<detail::MemoryFile>& file = files[key];
        if (!file)
            file = std::make_shared<detail::MemoryFile>();
        return file;
    }
};

CMemoryFileSystem::CMemoryFileSystem() : m_state(std::make_unique<State>()) {}

CMemoryFileSystem::~CMemoryFileSystem() = default;

P<IIOStream> CMemoryFileSystem::openFile(CURI const& uri, IIOStream::Access access,
                                         unsigned int* options) {
    CURI const key = toFileKey(uri);
    bool const makesFile = !options || (*options & DoNotMakeFile) == 0;
    bool const create = access == IIOStream::ReadWrite && makesFile;
    if (access == IIOStream::ReadWrite && namesFolder(key))
        throw detail::makeFileError(detail::FileAction::Open, EISDIR, detail::makeUriProps(uri));
    std::shared_ptr<detail::MemoryFile> file =
        create ? m_state->findOrMake(key) : m_state->find(key);
    if (!file)
        throw detail::makeFileError(detail::FileAction::Open, ENOENT, detail::makeUriProps(uri));
    return makeObject<CMemoryFileStream>(std::move(file), uri, access);
}

bool CMemoryFileSystem::fileExists(CURI const& uri) {
    return m_state->find(toFileKey(uri)) != nullptr;
}

void CMemoryFileSystem::deleteFile(CURI const& uri, bool ignoreMissing) {
    CURI const key = toFileKey(uri);
    std::lock_guard const lock(m_state->mutex);
    if (m_state->files.erase(key) == 0 && !ignoreMissing)
        throw detail::makeFileError(detail::FileAction::Delete, ENOENT, detail::makeUriProps(uri));
}

void CMemoryFileSystem::putFile(CURI const& uri, TBuffer<unsigned char> const& content) {
    CURI const key = toFileKey(uri);
    if (namesFolder(key))
        throw detail::makeFileError(detail::FileAction::Open, EISDIR, detail::makeUriProps(uri));
    auto file = std::make_shared<detail::MemoryFile>();
    file->write(0, content.getData(), content.getUsed());
    file->setLength(content.getUsed());
    std::lock_guard const lock(m_state->mutex);
    m_state->files[key] = std::move(file);
}

TBuffer<unsigned char> CMemoryFileSystem::getFile(CURI const& uri) {
    std::shared_ptr<detail::MemoryFile> const file = m_state->find(toFileKey(uri));
    if (!file)
        throw detail::makeFileError(detail::FileAction::Open, ENOENT, detail::makeUriProps(uri));
    __int64 const length = file->getLength();
    if (length > std::numeric_limits<int>::max())
        detail::throwTooLong(uri, 0, length);
    TBuffer<unsigned char> content(static_cast<int>(length), -1);
    // The file may have become shorter in the meantime.
    content.setUsed(file->read(0, content.getData(), content.getUsed()));
    return content;
}

TArray<CURI> CMemoryFileSystem::listFiles() {
    TArray<CURI> uris;
    std::lock_guard const lock(m_state->mutex);
    for (auto const& [key, file] : m_state->files)
        uris.add(key);
    return uris;
}

} // namespace yx
