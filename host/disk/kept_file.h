#pragma once

#include <memory>
#include <optional>

#include "host/store/file_status.h"
#include "host/store/place_reader.h"
#include "host/system/file_lock.h"
#include "yx/access_stream.h"
#include "yx/native_stream.h"
#include "yx/stream.h"

namespace kelm::host {

/// A file that is open for reading and stays open, so that it is opened once for all who read it
/// one behind the other, and locked as it is.
///
/// Who opens a disk looks at the start of its main file several times. So the start, and how long
/// the file is, are asked for once and kept until `forgetStart`. For files that nobody changes
/// meanwhile. Serves one thread at a time, with all its streams.
class KeptFile : public SharedOpenFile {
public:
    /// How much is kept of the start: the header, the descriptor and a directory of a disk that the
    /// library has made.
    static constexpr int kStartBytes = 48 * 1024;

    /// `stream` is open for reading, without demands on alignment.
    explicit KeptFile(yx::P<yx::IIOStream> stream);
    KeptFile(KeptFile const&) = delete;
    KeptFile& operator=(KeptFile const&) = delete;

    /// A stream for reading, with a position of its own, which begins at 0. Closing it leaves the
    /// file open. It knows the file of the operating system that is open (`yx::INativeStream`).
    yx::P<yx::IIOStream> openStream();

    /// From now on everything is asked of the file.
    void forgetStart();

    bool keepsStart() const { return m_keepsStart; } ///< until `forgetStart`

    /// The stream that the file is open with, for its lock.
    yx::P<yx::IIOStream> const& getStream() const { return m_stream; }

    /// Which file it is; nothing if that cannot be asked.
    std::optional<FileIdentity> identify() const { return identifyStream(*m_stream); }

    /// -1 if the file is none of the operating system.
    int getFileDescriptor() const override;
    bool isInUse() const override { return m_streamCount > 0; }
    bool isRegularFile() override;

private:
    class Stream;

    __int64 getLength();
    int readAt(__int64 positionBytes, void* target, int sizeBytes);
    int copyStart(__int64 positionBytes, void* target, int sizeBytes);

    yx::P<yx::IIOStream> m_stream;

    /// The same object, or null.
    yx::INativeStream const* m_native;
    IPlaceReader const* m_places;
    int m_streamCount = 0;
    bool m_keepsStart = true;

    /// While the start is kept.
    std::optional<__int64> m_lengthBytes;

    /// Null until it is read; then there are so many bytes.
    std::unique_ptr<unsigned char[]> m_start;
    int m_startBytes = 0;
};

} // namespace kelm::host
