#pragma once

#include <array>
#include <chrono>
#include <string>
#include <thread>

#include "host/store/forwarding_stream.h"
#include "yx/access_stream.h"
#include "yx/file_system.h"

namespace bench {

/// What a file system and its streams are asked for. `Seek` and questions about the position are
/// none: they cost nothing anywhere.
enum class Request { Open, Exists, Delete, GetLength, Read, Write, SetLength, Flush, Lock, Close };

constexpr std::size_t kRequestKinds = 10;
constexpr std::array<char const*, kRequestKinds> kRequestNames = {
    "open", "exists", "delete", "length", "read", "write", "set length", "flush", "lock", "close"};

/// Counts requests, and makes each take as long as on a file system that is that far away.
class RequestMeter : public yx::CBase {
public:
    explicit RequestMeter(std::chrono::microseconds delay) : m_delay(delay) {}

    void note(Request request) {
        ++m_counts[static_cast<std::size_t>(request)];
        if (m_delay.count() > 0)
            std::this_thread::sleep_for(m_delay);
    }

    int getCount() const {
        int count = 0;
        for (int const each : m_counts)
            count += each;
        return count;
    }

    /// Begins to count anew.
    void forget() { m_counts.fill(0); }

    /// "12: open 3, read 5, ...".
    std::string describe() const {
        std::string text = std::to_string(getCount());
        char const* separator = ": ";
        for (std::size_t i = 0; i < kRequestKinds; ++i) {
            if (m_counts[i] == 0)
                continue;
            text += separator + (kRequestNames[i] + (" " + std::to_string(m_counts[i])));
            separator = ", ";
        }
        return text;
    }

private:
    std::chrono::microseconds m_delay;
    std::array<int, kRequestKinds> m_counts{};
};

/// A stream whose requests are noted. A close counts, explicit or not: what ends a stream tells the
/// file's holder. Locks that end with their tokens are not seen.
class DelayedStream : public kelm::host::ForwardingStream, public virtual yx::IAccessStream {
public:
    DelayedStream(yx::P<yx::IIOStream> stream, yx::IIOStream::Access access,
                  yx::P<RequestMeter> meter)
        : ForwardingStream(std::move(stream)), m_access(access), m_meter(std::move(meter)) {}
    DelayedStream(DelayedStream const&) = delete;
    DelayedStream& operator=(DelayedStream const&) = delete;
    ~DelayedStream() override { noteClose(); }

    __int64 getLength() const override {
        m_meter->note(Request::GetLength);
        return ForwardingStream::getLength();
    }
    yx::P<yx::IStreamLock> lockRange(__int64 position, __int64 length, LockType type) override {
        m_meter->note(Request::Lock);
        return ForwardingStream::lockRange(position, length, type);
    }
    void close() override {
        noteClose();
        ForwardingStream::close();
    }
    void read(void* target, int sizeBytes) override {
        m_meter->note(Request::Read);
        ForwardingStream::read(target, sizeBytes);
    }
    int readLax(void* target, int sizeBytes) override {
        m_meter->note(Request::Read);
        return ForwardingStream::readLax(target, sizeBytes);
    }
    int readAvailable(void* target, int sizeBytes) override {
        m_meter->note(Request::Read);
        return ForwardingStream::readAvailable(target, sizeBytes);
    }
    void write(void const* source, int sizeBytes, yx::IWriteBarrier* barrier) override {
        m_meter->note(Request::Write);
        ForwardingStream::write(source, sizeBytes, barrier);
    }
    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        m_meter->note(Request::Write);
        ForwardingStream::writeKeepBuffer(slice, barrier);
    }
    void flush() override {
        m_meter->note(Request::Flush);
        ForwardingStream::flush();
    }
    void setLength(__int64 length) override {
        m_meter->note(Request::SetLength);
        ForwardingStream::setLength(length);
    }
    yx::IIOStream::Access getAccess() const override { return m_access; }

private:
    void noteClose() {
        if (!m_isClosed)
            m_meter->note(Request::Close);
        m_isClosed = true;
    }

    yx::IIOStream::Access m_access;
    yx::P<RequestMeter> m_meter;
    bool m_isClosed = false;
};

/// A file system over another one, as if that were far away.
class DelayedFiles : public yx::CBase, public virtual yx::IFileSystem {
public:
    DelayedFiles(yx::IFileSystem* fileSystem, std::chrono::microseconds delay)
        : m_fileSystem(fileSystem), m_meter(yx::makeObject<RequestMeter>(delay)) {}

    RequestMeter& getMeter() const { return *m_meter; }

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override {
        m_meter->note(Request::Open);
        return yx::makeObject<DelayedStream>(m_fileSystem->openFile(uri, access, options), access,
                                             m_meter);
    }
    bool fileExists(yx::CURI const& uri) override {
        m_meter->note(Request::Exists);
        return m_fileSystem->fileExists(uri);
    }
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override {
        m_meter->note(Request::Delete);
        m_fileSystem->deleteFile(uri, ignoreMissing);
    }

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    yx::P<RequestMeter> m_meter;
};

} // namespace bench
