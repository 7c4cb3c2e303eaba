#pragma once

#include <functional>
#include <iosfwd>
#include <set>
#include <string>

#include "tests/support/bytes.h"
#include "yx/file_system.h"
#include "yx/gather_out_stream.h"

namespace test_support {

/// One operation on a file system or on a stream of it.
struct FileOperation {
    enum class Kind {
        Open,
        Exists,
        Delete,
        GetLength,
        Seek,
        Read,  ///< `read`, `readLax` and `readAvailable`
        Write, ///< `write` and `writeKeepBuffer`; a gathering write counts once, for all pieces
        SetLength,
        Flush,
        Barrier,
        Lock,
        Close, ///< also when a stream ends without `close`
    };

    Kind kind;
    yx::CURI uri;

    /// Which opening of the file system the stream comes from, counted from 1, also for `Open`; 0
    /// for `Exists` and `Delete`.
    int opening = 0;

    /// Where a read, a write or a lock begins; the new position of a seek; else 0.
    long long position = 0;

    /// Bytes to read, write or lock; the new length of `SetLength`; else 0.
    long long length = 0;

    /// What is opened for.
    yx::IIOStream::Access access = yx::IIOStream::ReadOnly;
    yx::IStreamBase::LockType lockType = yx::IStreamBase::Shared;

    /// What is written.
    yx::IGatherOutStream::Piece const* pieces = nullptr;
    int pieceCount = 0;

    /// The last component of the URI.
    std::string file() const { return uri.getName().toStdString(); }

    /// The bytes of the pieces.
    Bytes content() const;
};

using FileOperationKinds = std::set<FileOperation::Kind>;

/// Prints as in "open a.vmdk rw", "open a.vmdk r", "read a.vmdk 0+512", "write a.vmdk 512+16",
/// "seek a.vmdk 512", "set-length a.vmdk 1024", "get-length a.vmdk", "flush a.vmdk",
/// "barrier a.vmdk", "lock a.vmdk 0+1 shared", "close a.vmdk", "exists a.vmdk", "delete a.vmdk".
std::ostream& operator<<(std::ostream& stream, FileOperation const& operation);
std::string toText(FileOperation const& operation);

/// Wraps a file system and its streams, and hands each operation to a hook, which lets it happen by
/// calling `proceed`, once at most, or throws. The hook may lower the length of a read or a write
/// first: then `readLax` returns only that much, `read` fails as at the end of a file, and a write
/// writes only that much and reports nothing.
///
/// Streams gather writes if the streams below do, and pass on which file they have open.
/// `getPosition`, `getURI`, `waitReadable` and the tests for the end pass by the hook.
class HookedFileSystem : public yx::CBase, public virtual yx::IFileSystem {
public:
    using Proceed = std::function<void()>;
    using Hook = std::function<void(FileOperation& operation, Proceed const& proceed)>;

    HookedFileSystem(yx::IFileSystem* fileSystem, Hook hook);

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* reserved) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

    /// Called by the streams for each of their operations.
    void run(FileOperation& operation, Proceed const& proceed) { m_hook(operation, proceed); }

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    Hook m_hook;
    int m_openings = 0;
};

} // namespace test_support
