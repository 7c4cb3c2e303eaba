#include "tests/support/loop_device.h"

#include <fcntl.h>
#include <linux/loop.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace test_support {

LoopDevice::LoopDevice(std::string const& file) {
    int const control = ::open("/dev/loop-control", O_RDWR | O_CLOEXEC);
    int const number = control < 0 ? -1 : ::ioctl(control, LOOP_CTL_GET_FREE);
    if (control >= 0)
        ::close(control);
    m_path = "/dev/loop" + std::to_string(number);
    m_device = number < 0 ? -1 : ::open(m_path.c_str(), O_RDWR | O_CLOEXEC);
    int const backing = ::open(file.c_str(), O_RDWR | O_CLOEXEC);
    m_isThere = m_device >= 0 && ::ioctl(m_device, LOOP_SET_FD, backing) == 0;
    ::close(backing);
}

LoopDevice::~LoopDevice() {
    if (m_isThere)
        ::ioctl(m_device, LOOP_CLR_FD);
    if (m_device >= 0)
        ::close(m_device);
}

} // namespace test_support
