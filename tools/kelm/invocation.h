#pragma once

#include "host/system/cancel.h"
#include "host/system/progress.h"
#include "host/transfer/transfer.h"
#include "yx/native_file_system.h"

namespace kelm::tool {

/// What every command works with: the files of this machine, and the wish of the user to stop.
class Invocation {
public:
    Invocation();
    Invocation(Invocation const&) = delete;
    Invocation& operator=(Invocation const&) = delete;

    /// From here on the work is done, and a wish to stop comes too late to be told by the status.
    ~Invocation();

    yx::IFileSystem* getFiles() { return m_files.get(); }
    host::CancelFlag const& getCancel() const { return m_cancel; }

private:
    yx::P<yx::CNativeFileSystem> m_files;
    host::CancelFlag m_cancel;
    host::SignalCancellation m_signals;
};

/// Long work: a bar on standard error, if that is a terminal, and an end at the user's wish.
class LongWork {
public:
    LongWork(Invocation const& invocation, char const* label, int threads = 0);

    /// The work must end before this object.
    host::WorkOptions const& getOptions() const { return m_options; }

    /// Makes room on the terminal for a line of output.
    void hideBar() { m_bar.hide(); }

private:
    host::ProgressBar m_bar;
    host::WorkOptions m_options;
};

} // namespace kelm::tool
