#pragma once

#include <functional>
#include <map>
#include <memory>
#include <vector>

#include "tests/crash/crash_history.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/power_cut.h"

namespace test_support {

/// A disk with content, on files that can fail.
class Scene {
public:
    Scene(Way way, CrashKind const& kind, FileImages const& images) : m_way(way), m_kind(kind) {
        putImages(*memory, images);
    }

    void open(yx::IIOStream::Access access) {
        disk = std::make_unique<CrashDisk>(m_way, m_kind, files.get(), access);
    }

    void create(bool overwrite) {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), overwrite);
        SafeDisk::create(guard.get(), crashURI(kMainFile), requestFor(m_kind));
        guard->keep();
    }

    yx::P<yx::CMemoryFileSystem> memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<FaultyFileSystem> faulty = yx::makeObject<FaultyFileSystem>(memory.get());
    yx::P<RecordingFileSystem> files = yx::makeObject<RecordingFileSystem>(faulty.get());
    std::unique_ptr<CrashDisk> disk;

private:
    Way m_way;
    CrashKind const& m_kind;
};

/// The content of a disk, as far as it was written.
using Grains = std::map<int, Bytes>;

/// What every disk holds before its phase begins, but for one that is still to be made.
Grains const& flushedGrains();

/// A part of a disk's life in which operations fail.
struct Phase {
    char const* name;

    /// What comes before, without faults.
    std::function<void(Scene&)> prepare;

    /// The work that meets the fault.
    std::function<void(Scene&)> act;

    /// What the disk holds before the work, and after it.
    Grains const& before;
    Grains const& after;

    bool createsDisk = false;
    bool opensDisk = false;
    bool onlyChildren = false;
};

/// All phases, in the order in which they come.
std::vector<Phase> const& phases();

} // namespace test_support
