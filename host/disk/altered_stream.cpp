#include "host/disk/altered_stream.h"

namespace kelm::host {

void AlteredStream::read(void* target, int sizeBytes) {
    __int64 const positionBytes = getTarget()->getPosition();
    getTarget()->read(target, sizeBytes);
    alter(positionBytes, static_cast<unsigned char*>(target), sizeBytes);
}

int AlteredStream::readLax(void* target, int sizeBytes) {
    __int64 const positionBytes = getTarget()->getPosition();
    int const count = getTarget()->readLax(target, sizeBytes);
    alter(positionBytes, static_cast<unsigned char*>(target), count);
    return count;
}

int AlteredStream::readAvailable(void* target, int sizeBytes) {
    __int64 const positionBytes = getTarget()->getPosition();
    int const count = getTarget()->readAvailable(target, sizeBytes);
    alter(positionBytes, static_cast<unsigned char*>(target), count);
    return count;
}

} // namespace kelm::host
