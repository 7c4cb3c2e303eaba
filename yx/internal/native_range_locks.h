#pragma once

#include <memory>

#include "yx/internal/counted_range_locks.h"
#include "yx/internal/file_descriptor.h"
#include "yx/stream.h"

namespace yx::detail {

/// A lock that its holder may leave to the end of the open file, instead of giving it back. Internal.
class IEndingLock : public virtual IStreamLock {
public:
    /// The range stays locked when this token goes, until the file is closed. For a file that has
    /// lost its name, and that nobody else has a use for.
    virtual void leaveToEndOfFile() = 0;
};

/// The ranges that one open file of the operating system has locked. It keeps the file open, since
/// its locks end with it. Safe for several threads. Internal.
class NativeRangeLocks final : public CountedRangeLocks,
                               public std::enable_shared_from_this<NativeRangeLocks> {
public:
    explicit NativeRangeLocks(std::shared_ptr<FileDescriptor> descriptor)
        : m_descriptor(std::move(descriptor)) {}

    /// All ranges have gone: each token keeps the table.
    ~NativeRangeLocks();

    struct Result {
        P<IStreamLock> token; ///< null on a failure, and then nothing has changed
        int error;            ///< the `errno` value of the failure, 0 on success
    };

    /// Locks the range from `begin` to before `end`. Throws `std::bad_alloc`; nothing has changed
    /// then either.
    Result lock(__int64 begin, __int64 end, bool exclusive);

private:
    class Lock;

    int setLock(short type, __int64 begin, __int64 end) noexcept override;

    std::shared_ptr<FileDescriptor> m_descriptor;
};

} // namespace yx::detail
