#include <iostream>

#include "kelm/kelm.h"

int main() {
    auto const fileSystem = yx::makeObject<yx::CMemoryFileSystem>();
    std::cout << yx::String("files: ") << fileSystem->listFiles().getSize()
              << ", limit: " << kelm::CVMDKDisk::getDefaultFileSizeLimit() << '\n';
}
