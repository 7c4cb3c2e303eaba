#include "tests/support/small_device.h"

#include <sys/mount.h>

namespace test_support {

SmallDevice::SmallDevice(std::filesystem::path const& path, int sizeMebibytes) : m_path(path) {
    std::string const size = "size=" + std::to_string(sizeMebibytes) + "m";
    m_isMounted = ::mount("kelm", m_path.c_str(), "tmpfs", 0, size.c_str()) == 0;
}

SmallDevice::~SmallDevice() {
    if (m_isMounted)
        ::umount2(m_path.c_str(), MNT_DETACH);
}

bool SmallDevice::makeReadOnly() {
    return ::mount(nullptr, m_path.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

} // namespace test_support
