#include "kelm/disk/space_info.h"

namespace kelm {

void CVMDKSpaceInfo::addSpaceInfo(CVMDKSpaceInfo const& other) {
    m_payloadSize += other.m_payloadSize;
    m_payloadSizeInFile += other.m_payloadSizeInFile;
    m_headerSize += other.m_headerSize;
    m_deadSpaceSize += other.m_deadSpaceSize;
}

} // namespace kelm
