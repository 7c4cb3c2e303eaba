#pragma once

#include <memory>
#include <random>

#include "tests/crash/crash_kinds.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/sanitized.h"

namespace test_support {

/// Through what a disk is used.
enum class Way {
    Bare, ///< `CVMDKDisk`
    Safe, ///< `SafeDisk`
};

inline char const* nameOf(Way way) {
    return way == Way::Bare ? "bare" : "safe";
}

struct WayAndKind {
    Way way;
    CrashKind kind;
};

inline std::ostream& operator<<(std::ostream& stream, WayAndKind const& parameter) {
    return stream << nameOf(parameter.way) << "_" << parameter.kind;
}

/// An open disk, the same for both ways.
class CrashDisk {
public:
    CrashDisk(Way way, CrashKind const& kind, yx::IFileSystem* files, yx::IIOStream::Access access);

    void read(__int64 position, void* target, int bytes);
    void write(__int64 position, Bytes const& bytes);
    void writeZeros(__int64 position, int bytes);
    void writePrepared(int grain, Bytes const& content);
    void makeIndependent(int grain);
    bool isWrittenHere(int grain);
    void flush();

private:
    kelm::CVMDKDisk& disk() { return m_safe ? m_safe->getDisk() : *m_bare; }

    std::unique_ptr<SafeDisk> m_safe;
    yx::P<kelm::CVMDKDisk> m_bare;
    yx::P<kelm::CVMDKDataPreparer> m_preparer;
};

/// What a seeded sequence of operations did to a disk, step by step.
class CrashHistory {
public:
    struct Change {
        int grain;
        std::shared_ptr<Bytes const> content;
    };

    struct Step {
        /// The length of the record when the step began and when it had ended.
        std::size_t firstOperation;
        std::size_t endOperation;

        /// Everything that was written before is durable once the step has ended.
        bool isFlush;
        std::vector<Change> changes;
    };

    /// Makes a disk on `files`, then changes it in `steps` ways. The bare way starts on a disk that
    /// exists and is durable.
    CrashHistory(Way way, CrashKind const& kind, RecordingFileSystem& files, unsigned int seed,
                 int steps);

    std::vector<Step> const& steps() const { return m_steps; }

    /// The grains that the operations chose from.
    std::vector<int> const& grains() const { return m_grains; }

private:
    int draw(int below) { return static_cast<int>(m_random() % static_cast<unsigned int>(below)); }
    int drawGrain() {
        return m_grains[static_cast<std::size_t>(draw(static_cast<int>(m_grains.size())))];
    }
    Bytes const& contentOf(int grain) { return *m_content[static_cast<std::size_t>(grain)]; }
    Bytes drawBytes(int size);
    void chooseGrains();
    void runStep(void (CrashHistory::*operation)(), bool isFlush);
    void change(int grain, Bytes content);
    void changeRange(__int64 position, Bytes const& bytes);

    void createDisk();
    void openDisk();
    void writeSome();
    void writeGrain();
    void writeZeros();
    void writePrepared();
    void readGrain();
    void makeIndependent();
    void flush();
    void reopen();

    Way m_way;
    CrashKind const& m_kind;
    RecordingFileSystem& m_files;
    std::mt19937 m_random;
    std::vector<int> m_grains;
    std::vector<std::shared_ptr<Bytes const>> m_content;
    std::vector<Step> m_steps;
    std::unique_ptr<CrashDisk> m_disk;
};

} // namespace test_support
