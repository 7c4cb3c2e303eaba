#include "host/store/file_moving.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "host/store/file_exists.h"
#include "host/store/stores.h"
#include "yx/error.h"
#include "yx/native_file_system.h"

namespace kelm::host {

namespace {

constexpr __int64 kPieceBytes = __int64{1024} * 1024;

/// The store that a file system stands for; null for one of a host's own.
IStore* storeBehind(yx::IFileSystem* fileSystem, yx::CURI const& uri) {
    if (auto* const store = dynamic_cast<IStore*>(fileSystem))
        return store;
    return dynamic_cast<yx::CNativeFileSystem*>(fileSystem) ? findStore(uri) : nullptr;
}

void copyFile(yx::IFileSystem* fileSystem, yx::CURI const& from, yx::CURI const& to) {
    unsigned int reserved = 0;
    yx::P<yx::IIOStream> const source =
        fileSystem->openFile(from, yx::IIOStream::ReadOnly, &reserved);
    if (fileSystem->fileExists(to))
        throwFileExists(to);
    yx::P<yx::IIOStream> const target =
        fileSystem->openFile(to, yx::IIOStream::ReadWrite, &reserved);
    std::vector<unsigned char> piece(
        static_cast<std::size_t>(std::min(source->getLength(), kPieceBytes)));
    for (__int64 left = source->getLength(); left > 0;) {
        auto const size = static_cast<int>(std::min(left, kPieceBytes));
        source->read(piece.data(), size);
        target->write(piece.data(), size, nullptr);
        left -= size;
    }
    target->flush();
    target->close();
}

} // namespace

void moveFile(yx::IFileSystem* fileSystem, yx::CURI const& from, yx::CURI const& to) {
    assert(from.getParent() == to.getParent());
    if (auto* const mover = dynamic_cast<IFileMover*>(fileSystem)) {
        mover->moveFile(from, to);
    } else if (IStore* const store = storeBehind(fileSystem, from)) {
        store->renameIfAbsent(from, to);
    } else {
        copyFile(fileSystem, from, to);
        fileSystem->deleteFile(from, false);
    }
}

yx::CURI moveAside(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& suffix) {
    yx::String const name = uri.getName() + "." + suffix;
    for (int number = 1;; ++number) {
        yx::String const numbered = number == 1 ? name : name + "." + yx::toString(number);
        yx::CURI target = (uri.getParent() << numbered).toNormalized();
        if (fileSystem->fileExists(target))
            continue;
        moveFile(fileSystem, uri, target);
        return target;
    }
}

} // namespace kelm::host
