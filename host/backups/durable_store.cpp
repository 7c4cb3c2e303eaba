#include "host/backups/durable_store.h"

#include "host/backups/durable_files.h"
#include "host/backups/stream_copy.h"
#include "host/store/file_names.h"
#include "host/store/folder_sync.h"
#include "host/store/stores.h"
#include "yx/error.h"
#include "yx/log.h"

namespace kelm::host {

namespace {

yx::P<yx::IIOStream> openStored(yx::CURI const& file, yx::IIOStream::Access access) {
    unsigned int options = yx::IFileSystem::DoNotFollowLink | yx::IFileSystem::DoNotMakeFile;
    return storeOf(file).openFile(file, access, &options);
}

/// A file of a store under a name for the time being, which is taken away again unless it gets its
/// own.
class UnfinishedStoreFile {
public:
    explicit UnfinishedStoreFile(yx::CURI const& target)
        : m_store(storeOf(target)), m_target(target), m_uri(unfinishedNameOf(target)) {
        m_store.deleteFile(m_uri, true);
        m_stream = m_store.createFile(m_uri);
    }
    UnfinishedStoreFile(UnfinishedStoreFile const&) = delete;
    UnfinishedStoreFile& operator=(UnfinishedStoreFile const&) = delete;
    ~UnfinishedStoreFile() {
        if (m_isNamed)
            return;
        try {
            m_stream.reset();
            m_store.deleteFile(m_uri, true);
        } catch (std::exception const& error) {
            yx::logWarning(error,
                           "Cannot delete the unfinished file '" + m_uri.toString(true) + "'.", "");
        }
    }

    yx::IIOStream& getStream() { return *m_stream; }
    yx::CURI const& getURI() const { return m_uri; }

    /// Only within one store.
    void takeRightsOf(yx::CURI const& like) {
        if (like.getScheme() == m_target.getScheme())
            m_store.copyRights(like, m_uri);
    }

    void giveName(bool mayReplace) {
        m_stream->flush();
        m_stream->close();
        if (mayReplace)
            m_store.rename(m_uri, m_target);
        else
            m_store.renameIfAbsent(m_uri, m_target);
        m_isNamed = true;
        m_store.syncFolder(m_target.getParent());
    }

private:
    IStore& m_store;
    yx::CURI m_target;
    yx::CURI m_uri;
    yx::P<yx::IIOStream> m_stream;
    bool m_isNamed = false;
};

} // namespace

bool DurableStore::tryLink(yx::CURI const& from, yx::CURI const& to) {
    IStore& store = storeOf(to);
    if (&storeOf(from) != &store || !store.tryAddName(from, to))
        return false;
    store.syncFolder(to.getParent());
    return true;
}

void DurableStore::copy(yx::CURI const& from, yx::CURI const& to, CancelFlag const* cancel,
                        TransferMeter* meter) {
    yx::P<yx::IIOStream> const source = openStored(from, yx::IIOStream::ReadOnly);
    UnfinishedStoreFile target(to);
    copyStream(*source, target.getStream(), cancel, meter);
    target.takeRightsOf(from);
    target.giveName(false);
}

bool DurableStore::areAlike(yx::CURI const& one, yx::CURI const& other, CancelFlag const* cancel) {
    if (isSameFile(one, other))
        return true;
    return areStreamsAlike(*openStored(one, yx::IIOStream::ReadOnly),
                           *openStored(other, yx::IIOStream::ReadOnly), cancel);
}

void DurableStore::writeWhole(yx::CURI const& file, std::vector<unsigned char> const& bytes,
                              yx::CURI const& like, bool mayReplace) {
    UnfinishedStoreFile target(file);
    target.getStream().write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    target.takeRightsOf(like);
    target.giveName(mayReplace);
}

void DurableStore::remake(yx::CURI const& file, std::function<void(yx::CURI const&)> const& fill) {
    UnfinishedStoreFile target(file);
    fill(target.getURI());
    target.takeRightsOf(file);
    target.giveName(true);
}

void DurableStore::patch(yx::CURI const& file, __int64 positionBytes,
                         std::vector<unsigned char> const& bytes) {
    yx::P<yx::IIOStream> const stream = openStored(file, yx::IIOStream::ReadWrite);
    stream->seek(positionBytes);
    stream->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    stream->flush();
    stream->close();
}

void DurableStore::remove(yx::CURI const& file) {
    IStore& store = storeOf(file);
    // Before the file, by which the next attempt would find it.
    store.deleteFile(unfinishedNameOf(file), true);
    store.deleteFile(file, true);
    store.syncFolder(file.getParent());
}

} // namespace kelm::host
