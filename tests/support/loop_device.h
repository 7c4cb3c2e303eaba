#pragma once

#include <string>

namespace test_support {

/// A block device that has the bytes of a file, for as long as it lives; none where the system
/// gives us none.
class LoopDevice {
public:
    explicit LoopDevice(std::string const& file);
    LoopDevice(LoopDevice const&) = delete;
    LoopDevice& operator=(LoopDevice const&) = delete;
    ~LoopDevice();

    bool isThere() const { return m_isThere; }
    std::string const& getPath() const { return m_path; }

private:
    std::string m_path;
    int m_device = -1;
    bool m_isThere = false;
};

} // namespace test_support
