#pragma once

#include <functional>
#include <vector>

#include "host/system/cancel.h"
#include "host/system/transfer_meter.h"
#include "yx/base.h"
#include "yx/uri.h"

namespace kelm::host {

/// What moving and deleting disks does to files, in steps. Each is on the
/// device, names included, when it returns, and a power cut in its middle leaves the state before
/// it or the one behind it, but for `patch`. So work that is a row of such steps can be gone on
/// with from wherever it ended. Names are URIs of any store; files of the operating system are
/// copied with what it offers for that.
///
/// A file that is not complete yet has its name and ".kelm-part" behind it (`unfinishedNameOf`). One
/// that a kill has left there is replaced by the next attempt, or goes with the file.
///
/// Errors are those of `throwSystemError`, or of the store, and a name that another file has is `yx::CIOError`
/// `AlreadyExists` "The file exists already." with "uri".
class DurableFiles : public yx::CBase {
public:
    DurableFiles() = default;
    DurableFiles(DurableFiles const&) = delete;
    DurableFiles& operator=(DurableFiles const&) = delete;
    ~DurableFiles() override = default;

    /// What is copied is counted, and held to a rate, from now on. `meter` may be null, and must
    /// outlive this.
    void setMeter(TransferMeter* meter) { m_meter = meter; }

    /// Gives a file a second name. False where that cannot be: on another file system, on one
    /// without hard links, or for somebody else's file.
    virtual bool tryLink(yx::CURI const& from, yx::CURI const& to);

    /// Copies a file with its holes and its rights, and compares the copy with it; shares the
    /// space where the file system can. A copy that differs is `CIOError` `IOFailure` "The copy
    /// differs from the file." with "path". `cancel`, which may be null, ends it by
    /// `CancelledError`.
    virtual void copy(yx::CURI const& from, yx::CURI const& to, CancelFlag const* cancel);

    /// Whether both names lead to files of the same content, or to one file. Changes nothing.
    static bool areAlike(yx::CURI const& one, yx::CURI const& other, CancelFlag const* cancel);

    /// Makes a file of these bytes, with the rights of `like`.
    virtual void make(yx::CURI const& file, std::vector<unsigned char> const& bytes,
                      yx::CURI const& like);

    /// Puts a file of these bytes, and of its rights, in the place of one that is there.
    virtual void replace(yx::CURI const& file, std::vector<unsigned char> const& bytes);

    /// Puts a new file in the place of one that is there, and gives it the rights of that. `fill` is
    /// given the name that the new file has until then, and writes it; what it throws passes, and
    /// leaves the old file.
    virtual void remake(yx::CURI const& file, std::function<void(yx::CURI const&)> const& fill);

    /// Overwrites bytes of a file. A power cut can leave some sectors old and others new.
    virtual void patch(yx::CURI const& file, __int64 positionBytes,
                       std::vector<unsigned char> const& bytes);

    /// Deletes a file, and what a kill has left under its unfinished name. One that is not there is
    /// none to delete.
    virtual void remove(yx::CURI const& file);

private:
    TransferMeter* m_meter = nullptr;
};

/// The name of a file that is not complete yet.
yx::CURI unfinishedNameOf(yx::CURI const& file);

} // namespace kelm::host
