#include "tests/support/folder_store.h"

#include <limits>
#include <thread>

#include <unistd.h>

#include "host/store/place_reader.h"
#include "yx/error.h"
#include "yx/native_file_system.h"
#include "yx/native_stream.h"

namespace test_support {

namespace {

using kelm::host::FileStatus;

/// Shows nothing of the operating system's, and has the store's name.
class FolderStream : public yx::CBase,
                     public virtual yx::IIOStream,
                     public kelm::host::IPlaceReader {
public:
    FolderStream(yx::P<yx::IIOStream> stream, yx::CURI uri, yx::P<FolderStore> store)
        : m_stream(std::move(stream)), m_uri(std::move(uri)), m_store(std::move(store)) {}

    yx::IIOStream& getLocal() { return *m_stream; }

    __int64 getLength() const override { return target().getLength(); }
    __int64 getPosition() const override { return target().getPosition(); }
    yx::CURI getURI() override { return m_uri; }
    void seek(__int64 position) override { m_stream->seek(position); }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        return target().lockRange(position, length, type);
    }
    void close() override { m_stream->close(); }
    void read(void* bytes, int sizeBytes) override { target().read(bytes, sizeBytes); }
    int readLax(void* bytes, int sizeBytes) override { return target().readLax(bytes, sizeBytes); }
    int readAvailable(void* bytes, int sizeBytes) override {
        return target().readAvailable(bytes, sizeBytes);
    }
    bool waitReadable(int timeLimit) const override { return target().waitReadable(timeLimit); }
    bool isEndOfStream() const override { return target().isEndOfStream(); }
    int isEndOfStream_NonBlocking() const override { return target().isEndOfStream_NonBlocking(); }
    void write(void const* bytes, int sizeBytes, yx::IWriteBarrier* barrier) override {
        target().write(bytes, sizeBytes, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        target().writeKeepBuffer(slice, barrier);
    }
    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        return m_stream->createWriteBarrier(previous);
    }
    void flush() override { target().flush(); }
    void setLength(__int64 length) override { target().setLength(length); }
    int readPlace(__int64 positionBytes, void* bytes, int sizeBytes) const override {
        int const file = dynamic_cast<yx::INativeStream&>(target()).getFileDescriptor();
        return static_cast<int>(
            ::pread(file, bytes, static_cast<std::size_t>(sizeBytes), positionBytes));
    }

private:
    yx::IIOStream& target() const {
        m_store->step(m_uri);
        return *m_stream;
    }

    yx::P<yx::IIOStream> m_stream;
    yx::CURI m_uri;
    yx::P<FolderStore> m_store;
};

} // namespace

FolderStore::FolderStore(std::string folder)
    : m_folder(std::move(folder)),
      m_local(yx::makeObject<kelm::host::LocalStore>()),
      m_maxFileLengthBytes(std::numeric_limits<__int64>::max()) {}

yx::CURI FolderStore::toLocal(yx::CURI const& uri) const {
    step(uri);
    yx::CURI const path("file", uri.toNormalized().getPath(), nullptr, nullptr, nullptr, -1,
                        nullptr, nullptr);
    return yx::CURI(yx::TPathImpl<yx::CUnixPathTraits>(
                        yx::String::fromUTF8(m_folder) + yx::toNativePath(path), true, false),
                    false)
        .toNormalized();
}

yx::CURI FolderStore::fromLocal(yx::CURI const& local) const {
    std::string const path = yx::toNativePath(local).toStdString();
    if (path == m_folder)
        return yx::CURI("test:/");
    if (path.rfind(m_folder + "/", 0) != 0) {
        throw yx::CIOError(yx::CIOError::NotFound, "No such file or directory",
                           yx::CProps().add("uri", local.toString(true)), nullptr);
    }
    yx::CURI const own(yx::TPathImpl<yx::CUnixPathTraits>(
                           yx::String::fromUTF8(path.substr(m_folder.size())), true, false),
                       false);
    return yx::CURI("test", own.getPath(), nullptr, nullptr, nullptr, -1, nullptr, nullptr)
        .toNormalized();
}

FileStatus FolderStore::own(FileStatus status) const {
    status.identity.store = "test " + m_folder;
    return status;
}

yx::P<yx::IIOStream> FolderStore::wrap(yx::P<yx::IIOStream> stream, yx::CURI const& uri) {
    return yx::makeObject<FolderStream>(std::move(stream), uri, yx::P<FolderStore>(this));
}

void FolderStore::step(yx::CURI const& uri) const {
    pid_t first = 0;
    bool const isFirst = m_process.compare_exchange_strong(first, ::getpid());
    if (m_isOfOneProcess && !isFirst && first != ::getpid()) {
        throw yx::CIOError(yx::CIOError::IOFailure, "The store was used before the process forked.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
    while (m_isWaiting && !m_isAbandoned)
        std::this_thread::yield();
    if (m_isAbandoned) {
        throw yx::CIOError(yx::CIOError::IOFailure, "The store was given up.",
                           yx::CProps().add("uri", uri.toString(true)), nullptr);
    }
}

template <class Action>
auto FolderStore::translated(Action const& action) const {
    try {
        return action();
    } catch (yx::CIOError const& error) {
        yx::CProps props;
        for (int i = 0; i < error.getParams().getCount(); ++i)
            addTranslated(props, error.getParams().getName(i), error.getParams().getValue(i));
        throw yx::CIOError(error.getIOCode(), error.getMessage(), props, nullptr);
    }
}

void FolderStore::addTranslated(yx::CProps& props, yx::String const& name,
                                yx::String const& value) const {
    std::string const uri = "file://" + m_folder;
    std::string const text = value.toStdString();
    if (name == "path" && text.rfind(m_folder, 0) == 0)
        props.add("uri", "test:" + yx::String::fromUTF8(text.substr(m_folder.size())));
    else if (text.rfind(uri, 0) == 0)
        props.add(name, "test:" + yx::String::fromUTF8(text.substr(uri.size())));
    else
        props.add(name, value);
}

yx::P<yx::IIOStream> FolderStore::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                           unsigned int* options) {
    return wrap(translated([&] { return m_local->openFile(toLocal(uri), access, options); }), uri);
}

bool FolderStore::fileExists(yx::CURI const& uri) {
    return translated([&] { return m_local->fileExists(toLocal(uri)); });
}

void FolderStore::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    translated([&] { m_local->deleteFile(toLocal(uri), ignoreMissing); });
}

yx::CURI FolderStore::resolveName(yx::CURI const& uri) {
    return translated([&] { return fromLocal(m_local->resolveName(toLocal(uri))); });
}

std::optional<FileStatus> FolderStore::findStatus(yx::CURI const& uri, bool followLinks) {
    std::optional<FileStatus> status = m_local->findStatus(toLocal(uri), followLinks);
    return status ? std::optional<FileStatus>(own(*status)) : std::nullopt;
}

FileStatus FolderStore::getOpenStatus(yx::IStreamBase& stream) {
    auto* const opened = dynamic_cast<FolderStream*>(&stream);
    if (!opened)
        throw yx::CInvalidArgError("FolderStore::getOpenStatus", "The stream is none of the store.",
                                   yx::CProps());
    return own(m_local->getOpenStatus(opened->getLocal()));
}

std::vector<kelm::host::FolderEntry> FolderStore::listFolder(yx::CURI const& folder) {
    return translated([&] { return m_local->listFolder(toLocal(folder)); });
}

yx::P<yx::IIOStream> FolderStore::createFile(yx::CURI const& uri) {
    return wrap(translated([&] { return m_local->createFile(toLocal(uri)); }), uri);
}

void FolderStore::makeFolder(yx::CURI const& folder) {
    translated([&] { m_local->makeFolder(toLocal(folder)); });
}

void FolderStore::removeFolder(yx::CURI const& folder) {
    translated([&] { m_local->removeFolder(toLocal(folder)); });
}

void FolderStore::rename(yx::CURI const& from, yx::CURI const& to) {
    translated([&] { m_local->rename(toLocal(from), toLocal(to)); });
}

void FolderStore::renameIfAbsent(yx::CURI const& from, yx::CURI const& to) {
    translated([&] { m_local->renameIfAbsent(toLocal(from), toLocal(to)); });
}

bool FolderStore::tryAddName(yx::CURI const& from, yx::CURI const& to) {
    return m_hasLinks &&
           translated([&] { return m_local->tryAddName(toLocal(from), toLocal(to)); });
}

void FolderStore::copyRights(yx::CURI const& from, yx::CURI const& to) {
    translated([&] { m_local->copyRights(toLocal(from), toLocal(to)); });
}

void FolderStore::syncFolder(yx::CURI const& folder) {
    translated([&] { m_local->syncFolder(toLocal(folder)); });
}

void FolderStore::verifyMayWriteIn(yx::CURI const& folder) {
    translated([&] { m_local->verifyMayWriteIn(toLocal(folder)); });
}

std::optional<kelm::host::StoreRoom> FolderStore::findRoom(yx::CURI const& folder) {
    return translated([&] { return m_local->findRoom(toLocal(folder)); });
}

__int64 FolderStore::getMaxFileLengthBytes(yx::CURI const&) {
    return m_maxFileLengthBytes;
}

} // namespace test_support
