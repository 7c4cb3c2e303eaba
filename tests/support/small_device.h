#pragma once

#include <filesystem>
#include <string>

namespace test_support {

/// A file system in memory that holds little, in a folder, for as long as it lives; none where we
/// may not mount.
class SmallDevice {
public:
    explicit SmallDevice(std::filesystem::path const& path, int sizeMebibytes = 1);
    SmallDevice(SmallDevice const&) = delete;
    SmallDevice& operator=(SmallDevice const&) = delete;
    ~SmallDevice();

    bool isMounted() const { return m_isMounted; }

    /// From now on, nothing on it can be written. False if something on it is open for writing.
    bool makeReadOnly();

private:
    std::filesystem::path m_path;
    bool m_isMounted;
};

} // namespace test_support
