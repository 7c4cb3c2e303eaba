#pragma once

#include <atomic>
#include <chrono>
#include <memory>

#include "host/disk/busy_wait.h"
#include "host/disk/disk_trust.h"
#include "host/store/file_systems.h"
#include "host/store/store_watch.h"
#include "host/system/cancel.h"
#include "host/system/derived_keys.h"
#include "host/system/key_derivation.h"
#include "host/system/progress.h"
#include "host/system/progress_lines.h"
#include "host/system/transfer_meter.h"
#include "host/transfer/transfer.h"
#include "tools/kelm/command_result.h"
#include "tools/kelm/password_options.h"

namespace kelm::tool {

/// How a command shows how far it is.
enum class ProgressKind {
    Bar,   ///< a bar, if standard error is a terminal
    Lines, ///< JSON objects on standard error, one in a line
    None
};

/// What every command works with: the files of this machine and of other stores, and the flag that a signal sets.
class Invocation {
public:
    /// `result` must outlive the object.
    explicit Invocation(CommandResult& result);
    Invocation(Invocation const&) = delete;
    Invocation& operator=(Invocation const&) = delete;

    /// Blocks the signals: the work is done, and an interruption would come too late to change the
    /// exit status.
    ~Invocation();

    /// What the command says about its work.
    CommandResult& getResult() { return m_result; }

    /// Counts what is read and stored.
    host::TransferMeter& getMeter() { return m_meter; }

    /// How progress is shown.
    ProgressKind getProgressKind() const { return m_progressKind; }
    void setProgressKind(ProgressKind kind) { m_progressKind = kind; }

    /// Ends with a summary for people if the work was long.
    void summarize() const;

    /// What the command does takes long, and ends with a summary.
    void setLong() { m_isLong = true; }

    /// Adds to the result what has been read and stored, if that was anything.
    void tellMeter();

    /// Adds to the result how much of so many bytes of content had not to be stored.
    void tellSkipped(__int64 contentBytes);

    yx::IFileSystem* getFiles() { return m_files.get(); }
    host::CancelFlag const& getCancel() const { return m_cancel; }

    /// How far the user lets the command believe descriptors.
    host::DiskTrust const& getTrust() const { return m_trust; }
    void setTrust(host::DiskTrust const& trust) { m_trust = trust; }

    /// Unfinished disks are opened all the same from now on.
    void allowUnfinished(host::UnfinishedDisks which) { m_trust.unfinished = which; }

    /// How long disks that are in use are waited for, in all.
    host::BusyWait& getWait() { return m_wait; }
    void setWait(std::chrono::seconds limit) { m_wait = host::BusyWait(limit, &m_cancel); }

    /// What takes longer to be answered by a store is given up; 0 for never.
    void setStoreTimeout(std::chrono::seconds limit) {
        if (limit.count() > 0)
            m_storeWatch.setTimeout(limit);
    }

    /// The most rounds of key derivation that the user allows.
    int getMaxRounds() const { return m_maxRounds; }
    void setMaxRounds(int maxRounds) { m_maxRounds = maxRounds; }

    /// The password of parents that have another one than their child; empty if the user gives
    /// none.
    yx::String readParentPassword() const;
    void setParentPasswords(std::shared_ptr<PasswordOptions> const& passwords) {
        m_parentPasswords = passwords;
    }

    /// Holds every key that the command derives.
    host::DerivedKeys& getDerivedKeys() { return m_derivedKeys; }

private:
    void tellWaiting(std::chrono::seconds waited) const;

    CommandResult& m_result;
    host::TransferMeter m_meter;
    std::atomic<ProgressKind> m_progressKind = ProgressKind::Bar;
    bool m_isLong = false;
    int m_maxRounds = host::KeyDerivationWatch::kDefaultMaxRounds;
    yx::P<host::FileSystems> m_files;
    host::DerivedKeys m_derivedKeys;
    std::shared_ptr<PasswordOptions> m_parentPasswords;
    host::DiskTrust m_trust;
    host::CancelFlag m_cancel;
    host::BusyWait m_wait;
    host::SignalCancellation m_signals;
    host::StoreWatch m_storeWatch;
};

/// The options of long work that shows its progress on standard error as the user wants it, is
/// counted, and can be interrupted. Not for a command whose own output shows how far it is.
class LongWork {
public:
    LongWork(Invocation& invocation, char const* label, int threads = 0);

    /// Valid as long as this object.
    host::WorkOptions const& getOptions() const { return m_options; }

    /// The same without progress, and not counted, for what comes before or after the work itself.
    host::WorkOptions getQuietOptions() const {
        return {.threads = m_options.threads,
                .progress = {},
                .cancel = m_options.cancel,
                .meter = nullptr};
    }

    /// Removes the bar until the next progress, to make room for a line of output.
    void hideBar() { m_bar.hide(); }

private:
    host::ProgressBar m_bar;
    host::ProgressLines m_lines;
    host::WorkOptions m_options;
};

} // namespace kelm::tool
