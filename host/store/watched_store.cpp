#include "host/store/watched_store.h"

#include <cassert>
#include <utility>

#include "host/store/forwarding_stream.h"
#include "host/store/place_reader.h"
#include "yx/access_stream.h"
#include "yx/error.h"
#include "yx/gather_out_stream.h"

namespace kelm::host {

namespace {

/// What asks the store, or may have to wait for it, is noted.
class WatchedStoreStream : public ForwardingStream,
                           public virtual yx::IAccessStream,
                           public IPlaceReader {
public:
    WatchedStoreStream(yx::P<yx::IIOStream> const& stream, Access access, yx::P<IStore> store)
        : ForwardingStream(stream),
          m_uri(stream->getURI()),
          m_places(findPlaceReader(*stream)),
          m_access(access),
          m_store(std::move(store)) {}

protected:
    template <class Operation>
    auto call(Operation const& operation) const {
        return callStore(*m_store, m_uri, operation);
    }

public:
    WatchedStoreStream(WatchedStoreStream const&) = delete;
    WatchedStoreStream& operator=(WatchedStoreStream const&) = delete;

    /// The end of a stream may have to wait for the store, too.
    ~WatchedStoreStream() override {
        StoreCalls::Call const call(*m_store);
        dropTarget();
    }

    __int64 getLength() const override {
        return call([this] { return getTarget()->getLength(); });
    }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        return call([&] { return getTarget()->lockRange(position, length, type); });
    }
    void close() override {
        call([this] { getTarget()->close(); });
    }
    void read(void* target, int sizeBytes) override {
        call([&] { getTarget()->read(target, sizeBytes); });
    }
    int readLax(void* target, int sizeBytes) override {
        return call([&] { return getTarget()->readLax(target, sizeBytes); });
    }
    int readAvailable(void* target, int sizeBytes) override {
        return call([&] { return getTarget()->readAvailable(target, sizeBytes); });
    }
    bool isEndOfStream() const override {
        return call([this] { return getTarget()->isEndOfStream(); });
    }
    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        call([&] { getTarget()->write(source, sizeBytes, barrier); });
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        call([&] { getTarget()->writeKeepBuffer(slice, barrier); });
    }
    void flush() override {
        call([this] { getTarget()->flush(); });
    }
    void setLength(__int64 length) override {
        call([&] { getTarget()->setLength(length); });
    }

    bool canReadPlaces() const override { return m_places != nullptr; }
    int readPlace(__int64 positionBytes, void* target, int sizeBytes) const override {
        return call([&] { return m_places->readPlace(positionBytes, target, sizeBytes); });
    }

    Access getAccess() const override { return m_access; }

private:
    yx::CURI m_uri;

    /// The same object as the target; null if it cannot.
    IPlaceReader const* m_places;
    Access m_access;
    yx::P<IStore> m_store;
};

/// The same for a stream that can gather.
class WatchedStoreGatherStream : public WatchedStoreStream, public virtual yx::IGatherOutStream {
public:
    using WatchedStoreStream::WatchedStoreStream;

    void writePieces(__int64 position, Piece const* pieces, int count) override {
        call([&] {
            dynamic_cast<yx::IGatherOutStream&>(*getTarget()).writePieces(position, pieces, count);
        });
    }
};

/// Either of them over a stream that demands alignment, or is better at some.
template <class Base>
class WatchedAlignedStream : public Base, public virtual yx::IAlignedStreamBase {
public:
    using Base::Base;

    int getPositionAlign() override { return target().getPositionAlign(); }
    int getBufferAlign() override { return target().getBufferAlign(); }
    int getBestPerformancePositionAlign() override {
        return target().getBestPerformancePositionAlign();
    }

private:
    yx::IAlignedStreamBase& target() {
        return dynamic_cast<yx::IAlignedStreamBase&>(*this->getTarget());
    }
};

/// What a stream does not do, the one that watches it does not do either.
yx::P<yx::IIOStream> watch(yx::P<yx::IIOStream> const& stream, yx::IIOStream::Access access,
                           yx::P<IStore> const& store) {
    bool const isAligned = dynamic_cast<yx::IAlignedStreamBase*>(stream.get()) != nullptr;
    bool const gathers = dynamic_cast<yx::IGatherOutStream*>(stream.get()) != nullptr;
    if (isAligned && gathers)
        return yx::makeObject<WatchedAlignedStream<WatchedStoreGatherStream>>(stream, access,
                                                                              store);
    if (isAligned)
        return yx::makeObject<WatchedAlignedStream<WatchedStoreStream>>(stream, access, store);
    if (gathers)
        return yx::makeObject<WatchedStoreGatherStream>(stream, access, store);
    return yx::makeObject<WatchedStoreStream>(stream, access, store);
}

} // namespace

WatchedStore::WatchedStore(yx::P<IStore> store) : m_store(std::move(store)) {
    assert(m_store);
}

yx::P<yx::IIOStream> WatchedStore::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                            unsigned int* options) {
    return callStore(*m_store, uri, [&] {
        return watch(m_store->openFile(uri, access, options), access, m_store);
    });
}

bool WatchedStore::fileExists(yx::CURI const& uri) {
    return callStore(*m_store, uri, [&] { return m_store->fileExists(uri); });
}

void WatchedStore::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    callStore(*m_store, uri, [&] { m_store->deleteFile(uri, ignoreMissing); });
}

yx::CURI WatchedStore::resolveName(yx::CURI const& uri) {
    return callStore(*m_store, uri, [&] { return m_store->resolveName(uri); });
}

std::optional<FileStatus> WatchedStore::findStatus(yx::CURI const& uri, bool followLinks) {
    return callStore(*m_store, uri, [&] { return m_store->findStatus(uri, followLinks); });
}

FileStatus WatchedStore::getOpenStatus(yx::IStreamBase& stream) {
    auto* const watched = dynamic_cast<WatchedStoreStream*>(&stream);
    yx::IStreamBase& target = watched ? *watched->getForwarded() : stream;
    return callStore(*m_store, stream.getURI(), [&] { return m_store->getOpenStatus(target); });
}

std::vector<FolderEntry> WatchedStore::listFolder(yx::CURI const& folder) {
    return callStore(*m_store, folder, [&] { return m_store->listFolder(folder); });
}

yx::P<yx::IIOStream> WatchedStore::createFile(yx::CURI const& uri) {
    return callStore(*m_store, uri, [&] {
        return watch(m_store->createFile(uri), yx::IIOStream::ReadWrite, m_store);
    });
}

void WatchedStore::makeFolder(yx::CURI const& folder) {
    callStore(*m_store, folder, [&] { m_store->makeFolder(folder); });
}

void WatchedStore::removeFolder(yx::CURI const& folder) {
    callStore(*m_store, folder, [&] { m_store->removeFolder(folder); });
}

void WatchedStore::rename(yx::CURI const& from, yx::CURI const& to) {
    callStore(*m_store, from, [&] { m_store->rename(from, to); });
}

void WatchedStore::renameIfAbsent(yx::CURI const& from, yx::CURI const& to) {
    callStore(*m_store, from, [&] { m_store->renameIfAbsent(from, to); });
}

bool WatchedStore::tryAddName(yx::CURI const& from, yx::CURI const& to) {
    return callStore(*m_store, from, [&] { return m_store->tryAddName(from, to); });
}

void WatchedStore::copyRights(yx::CURI const& from, yx::CURI const& to) {
    callStore(*m_store, from, [&] { m_store->copyRights(from, to); });
}

void WatchedStore::syncFolder(yx::CURI const& folder) {
    callStore(*m_store, folder, [&] { m_store->syncFolder(folder); });
}

void WatchedStore::verifyMayWriteIn(yx::CURI const& folder) {
    callStore(*m_store, folder, [&] { m_store->verifyMayWriteIn(folder); });
}

std::optional<StoreRoom> WatchedStore::findRoom(yx::CURI const& folder) {
    return callStore(*m_store, folder, [&] { return m_store->findRoom(folder); });
}

__int64 WatchedStore::getMaxFileLengthBytes(yx::CURI const& uri) {
    return callStore(*m_store, uri, [&] { return m_store->getMaxFileLengthBytes(uri); });
}

} // namespace kelm::host
