#pragma once

#include "host/backups/durable_files.h"
#include "yx/error.h"

namespace test_support {

/// Steps that end after a number of them: one fails, and with a kill all behind it do.
class EndingSteps : public kelm::host::DurableFiles {
public:
    int left = 1 << 30;
    bool isKill = true;
    bool hasLinks = true;

    bool tryLink(yx::CURI const& from, yx::CURI const& to) override {
        if (!hasLinks)
            return false;
        take();
        return kelm::host::DurableFiles::tryLink(from, to);
    }
    void copy(yx::CURI const& from, yx::CURI const& to,
              kelm::host::CancelFlag const* cancel) override {
        take();
        kelm::host::DurableFiles::copy(from, to, cancel);
    }
    void make(yx::CURI const& file, std::vector<unsigned char> const& bytes,
              yx::CURI const& like) override {
        take();
        kelm::host::DurableFiles::make(file, bytes, like);
    }
    void replace(yx::CURI const& file, std::vector<unsigned char> const& bytes) override {
        take();
        kelm::host::DurableFiles::replace(file, bytes);
    }
    void remake(yx::CURI const& file, std::function<void(yx::CURI const&)> const& fill) override {
        take();
        kelm::host::DurableFiles::remake(file, fill);
    }
    void patch(yx::CURI const& file, __int64 positionBytes,
               std::vector<unsigned char> const& bytes) override {
        take();
        kelm::host::DurableFiles::patch(file, positionBytes, bytes);
    }
    void remove(yx::CURI const& file) override {
        take();
        kelm::host::DurableFiles::remove(file);
    }

private:
    void take() {
        if (left == 0 || (left < 0 && isKill)) {
            left = -1;
            throw yx::CIOError(yx::CIOError::NoSpace, "Ended.", yx::CProps(), nullptr);
        }
        --left;
    }
};

} // namespace test_support
