#include "tests/support/hooked_file_system.h"

#include <algorithm>
#include <ostream>
#include <sstream>

#include "yx/native_stream.h"

namespace test_support {

namespace {

using Kind = FileOperation::Kind;
using Piece = yx::IGatherOutStream::Piece;

class HookedStream : public yx::CBase,
                     public virtual yx::IIOStream,
                     public virtual yx::INativeStream {
public:
    HookedStream(HookedFileSystem* fileSystem, yx::P<yx::IIOStream> stream, int opening)
        : m_fileSystem(fileSystem),
          m_stream(std::move(stream)),
          m_uri(m_stream->getURI()),
          m_opening(opening) {}

    ~HookedStream() override {
        try {
            if (!m_isClosed)
                HookedStream::close();
        } catch (std::exception const&) {
            // The stream below closes itself as it goes; a test that wants to see this calls close.
        }
    }

    __int64 getLength() const override {
        FileOperation operation = make(Kind::GetLength);
        __int64 length = 0;
        m_fileSystem->run(operation, [&] { length = m_stream->getLength(); });
        return length;
    }

    __int64 getPosition() const override { return m_stream->getPosition(); }
    yx::CURI getURI() override { return m_uri; }

    void seek(__int64 position) override {
        FileOperation operation = make(Kind::Seek, position);
        m_fileSystem->run(operation, [&] { m_stream->seek(position); });
    }

    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        FileOperation operation = make(Kind::Lock, position, length);
        operation.lockType = type;
        yx::P<yx::IStreamLock> lock;
        m_fileSystem->run(operation, [&] { lock = m_stream->lockRange(position, length, type); });
        return lock;
    }

    void close() override {
        FileOperation operation = make(Kind::Close);
        m_fileSystem->run(operation, [&] {
            m_isClosed = true;
            m_stream->close();
        });
    }

    void read(void* target, int sizeBytes) override {
        FileOperation operation = make(Kind::Read, m_stream->getPosition(), sizeBytes);
        transfer(operation, [&] {
            if (operation.length < sizeBytes)
                throwUnexpectedEnd(operation.position, sizeBytes);
            m_stream->read(target, sizeBytes);
        });
    }

    int readLax(void* target, int sizeBytes) override {
        FileOperation operation = make(Kind::Read, m_stream->getPosition(), sizeBytes);
        int count = 0;
        transfer(operation,
                 [&] { count = m_stream->readLax(target, static_cast<int>(operation.length)); });
        return count;
    }

    int readAvailable(void* target, int sizeBytes) override {
        FileOperation operation = make(Kind::Read, m_stream->getPosition(), sizeBytes);
        int count = 0;
        transfer(operation, [&] {
            count = m_stream->readAvailable(target, static_cast<int>(operation.length));
        });
        return count;
    }

    bool waitReadable(int timeLimit) const override { return m_stream->waitReadable(timeLimit); }
    bool isEndOfStream() const override { return m_stream->isEndOfStream(); }
    int isEndOfStream_NonBlocking() const override { return m_stream->isEndOfStream_NonBlocking(); }

    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        FileOperation operation = make(Kind::Write, m_stream->getPosition(), sizeBytes);
        Piece const piece{source, sizeBytes};
        operation.pieces = &piece;
        operation.pieceCount = 1;
        transfer(operation,
                 [&] { m_stream->write(source, static_cast<int>(operation.length), barrier); });
    }

    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        FileOperation operation = make(Kind::Write, m_stream->getPosition(), slice.getLength());
        Piece const piece{slice.getData(), slice.getLength()};
        operation.pieces = &piece;
        operation.pieceCount = 1;
        transfer(operation, [&] {
            if (operation.length == slice.getLength())
                m_stream->writeKeepBuffer(slice, barrier);
            else
                m_stream->write(slice.getData(), static_cast<int>(operation.length), barrier);
        });
    }

    yx::P<yx::IWriteBarrier> createWriteBarrier(yx::IWriteBarrier* previous) override {
        FileOperation operation = make(Kind::Barrier);
        yx::P<yx::IWriteBarrier> barrier;
        m_fileSystem->run(operation, [&] { barrier = m_stream->createWriteBarrier(previous); });
        return barrier;
    }

    void flush() override {
        FileOperation operation = make(Kind::Flush);
        m_fileSystem->run(operation, [&] { m_stream->flush(); });
    }

    void setLength(__int64 length) override {
        FileOperation operation = make(Kind::SetLength, 0, length);
        m_fileSystem->run(operation, [&] { m_stream->setLength(length); });
    }

    int getFileDescriptor() const override {
        auto const* const native = dynamic_cast<yx::INativeStream*>(m_stream.get());
        return native ? native->getFileDescriptor() : -1;
    }

protected:
    FileOperation make(Kind kind, long long position = 0, long long length = 0) const {
        FileOperation operation{};
        operation.kind = kind;
        operation.uri = m_uri;
        operation.opening = m_opening;
        operation.position = position;
        operation.length = length;
        return operation;
    }

    /// A transfer that fails, also after it moved bytes, leaves the position where it was.
    void transfer(FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
        long long const position = operation.position;
        try {
            m_fileSystem->run(operation, proceed);
        } catch (std::exception const&) {
            if (!m_isClosed)
                m_stream->seek(position);
            throw;
        }
    }

    [[noreturn]] void throwUnexpectedEnd(long long position, int bytesToRead) const {
        throw yx::CIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                           yx::CProps()
                               .add("uri", m_uri.toString(true))
                               .add("position", yx::toString(position))
                               .add("bytesToRead", yx::toString(bytesToRead)),
                           nullptr);
    }

    yx::P<HookedFileSystem> m_fileSystem;
    yx::P<yx::IIOStream> m_stream;
    yx::CURI m_uri;
    int m_opening;
    bool m_isClosed = false;
};

class HookedGatherStream : public HookedStream, public virtual yx::IGatherOutStream {
public:
    using HookedStream::HookedStream;

    void writePieces(__int64 position, Piece const* pieces, int count) override {
        long long length = 0;
        for (int i = 0; i < count; ++i)
            length += pieces[i].sizeBytes;
        FileOperation operation = make(Kind::Write, position, length);
        operation.pieces = pieces;
        operation.pieceCount = count;
        m_fileSystem->run(operation, [&] {
            std::vector<Piece> const cut = cutTo(operation.length, pieces, count);
            if (!cut.empty()) {
                dynamic_cast<yx::IGatherOutStream&>(*m_stream).writePieces(
                    position, cut.data(), static_cast<int>(cut.size()));
            }
        });
    }

private:
    static std::vector<Piece> cutTo(long long length, Piece const* pieces, int count) {
        std::vector<Piece> cut;
        for (int i = 0; i < count && length > 0; ++i) {
            auto const size = static_cast<int>(std::min<long long>(length, pieces[i].sizeBytes));
            cut.push_back({pieces[i].data, size});
            length -= size;
        }
        return cut;
    }
};

} // namespace

Bytes FileOperation::content() const {
    Bytes bytes;
    for (int i = 0; i < pieceCount; ++i) {
        auto const* data = static_cast<unsigned char const*>(pieces[i].data);
        bytes.insert(bytes.end(), data, data + pieces[i].sizeBytes);
    }
    return bytes;
}

std::ostream& operator<<(std::ostream& stream, FileOperation const& operation) {
    auto const range = [&operation] {
        return " " + std::to_string(operation.position) + "+" + std::to_string(operation.length);
    };
    std::string const file = operation.file();
    switch (operation.kind) {
    case Kind::Open:
        return stream << "open " << file
                      << (operation.access == yx::IIOStream::ReadWrite ? " rw" : " r");
    case Kind::Exists:
        return stream << "exists " << file;
    case Kind::Delete:
        return stream << "delete " << file;
    case Kind::GetLength:
        return stream << "get-length " << file;
    case Kind::Seek:
        return stream << "seek " << file << " " << operation.position;
    case Kind::Read:
        return stream << "read " << file << range();
    case Kind::Write:
        return stream << "write " << file << range();
    case Kind::SetLength:
        return stream << "set-length " << file << " " << operation.length;
    case Kind::Flush:
        return stream << "flush " << file;
    case Kind::Barrier:
        return stream << "barrier " << file;
    case Kind::Lock:
        return stream << "lock " << file << range()
                      << (operation.lockType == yx::IStreamBase::Exclusive ? " exclusive"
                                                                           : " shared");
    case Kind::Close:
        return stream << "close " << file;
    }
    return stream;
}

std::string toText(FileOperation const& operation) {
    std::ostringstream stream;
    stream << operation;
    return stream.str();
}

HookedFileSystem::HookedFileSystem(yx::IFileSystem* fileSystem, Hook hook)
    : m_fileSystem(fileSystem), m_hook(std::move(hook)) {}

yx::P<yx::IIOStream> HookedFileSystem::openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                                unsigned int* reserved) {
    FileOperation operation{};
    operation.kind = Kind::Open;
    operation.uri = uri;
    operation.opening = ++m_openings;
    operation.access = access;
    yx::P<yx::IIOStream> stream;
    run(operation, [&] { stream = m_fileSystem->openFile(uri, access, reserved); });
    if (dynamic_cast<yx::IGatherOutStream*>(stream.get()))
        return yx::makeObject<HookedGatherStream>(this, std::move(stream), operation.opening);
    return yx::makeObject<HookedStream>(this, std::move(stream), operation.opening);
}

bool HookedFileSystem::fileExists(yx::CURI const& uri) {
    FileOperation operation{};
    operation.kind = Kind::Exists;
    operation.uri = uri;
    bool exists = false;
    run(operation, [&] { exists = m_fileSystem->fileExists(uri); });
    return exists;
}

void HookedFileSystem::deleteFile(yx::CURI const& uri, bool ignoreMissing) {
    FileOperation operation{};
    operation.kind = Kind::Delete;
    operation.uri = uri;
    run(operation, [&] { m_fileSystem->deleteFile(uri, ignoreMissing); });
}

} // namespace test_support
