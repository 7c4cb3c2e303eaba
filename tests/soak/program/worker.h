#pragma once

#include <functional>
#include <memory>
#include <random>
#include <vector>

#include "tests/soak/program/disk_kind.h"
#include "tests/soak/program/shared_model.h"

namespace soak {

/// One process that opens a disk again and again, for reading or for writing, and compares it with
/// the model. It may be killed at any moment.
class Worker {
public:
    struct Settings {
        yx::CURI uri;
        DiskKind kind;
        yx::NativeFlush flush;

        /// Of this process: its number, unique for the disk, and its place among those that run.
        int process;
        int slot;
        unsigned int seed;
    };

    Worker(SharedModel& model, Counts& counts, Settings const& settings);

    /// Opens the disk until the model says to stop. Throws `Violation`, and what the disk throws
    /// without reason.
    void run();

    /// Opens the disk once for writing, which nobody may refuse, writes, and closes it.
    void runOnceAlone();

private:
    /// Runs `body`. If it fails, this process counts as killed, so that the others do not report
    /// what it left behind.
    void guard(std::function<void()> const& body);

    bool tryOpen(yx::IIOStream::Access access);
    void besiege();
    void runReader();
    void runWriter();
    void enterAsWriter();
    void leaveAsWriter();

    /// After a writer was killed: the disk holds what was flushed or written since; what it holds
    /// is what counts from now on.
    void takeStock();
    void takeStockOfGrain(int grain);
    void mendGrain(int grain);

    void compareGrain(int grain);
    void compareAll();
    void compareWithChecker();

    void step();
    void write();
    void writeZeros();
    void writePrepared();
    void read();
    void flush();
    void announce(int firstSector, int sectorCount, Stamp stamp);
    Stamp drawStamp();
    int draw(int below);
    void drawRange(int& firstSector, int& sectorCount);

    SharedModel& m_model;
    Counts& m_counts;
    Settings m_settings;
    std::mt19937 m_random;
    yx::P<yx::CNativeFileSystem> m_files;
    std::unique_ptr<kelm::host::SafeDisk> m_disk;
    std::vector<unsigned char> m_buffer;
};

} // namespace soak
