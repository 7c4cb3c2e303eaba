#include "host/content/free_space.h"

#include "yx/error.h"

#if KELM_HAS_EXT2FS

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <utility>

#include <ext2fs/ext2fs.h>
#include <unistd.h>

#include "host/content/byte_source.h"
#include "host/content/partition_table.h"
#include "host/system/file_descriptor.h"

namespace kelm::host {

namespace {

/// The bytes of a raw image.
class ImageBytes : public ByteSource {
public:
    explicit ImageBytes(std::string const& path) : m_path(path), m_file(openForReading(path)) {
        if (m_file.isOpen())
            m_sizeBytes = ::lseek(m_file.get(), 0, SEEK_END);
        if (!m_file.isOpen() || m_sizeBytes < 0)
            throwSystemError("Cannot open the image", path);
    }

    __int64 getSizeBytes() const override { return m_sizeBytes; }

    void read(__int64 positionBytes, unsigned char* data, int bytes) override {
        while (bytes > 0) {
            ssize_t const count =
                ::pread(m_file.get(), data, static_cast<std::size_t>(bytes), positionBytes);
            if (count < 0 && errno == EINTR)
                continue;
            if (count <= 0)
                throwSystemError("Cannot read the image", m_path);
            positionBytes += count;
            data += count;
            bytes -= static_cast<int>(count);
        }
    }

private:
    std::string m_path;
    FileDescriptor m_file;
    __int64 m_sizeBytes = -1;
};

/// One file system of an image.
class ExtFreeSpace : public FreeSpace {
public:
    /// Takes `fileSystem` over, whose bitmap has been read.
    ExtFreeSpace(ext2_filsys fileSystem, __int64 startBytes)
        : m_fileSystem(fileSystem), m_startBytes(startBytes) {}
    ExtFreeSpace(ExtFreeSpace const&) = delete;
    ExtFreeSpace& operator=(ExtFreeSpace const&) = delete;
    ~ExtFreeSpace() override { ::ext2fs_free(m_fileSystem); }

    Stretch findFree(Stretch within) const override {
        __int64 const firstBlockBytes = startOf(firstBlock());
        __int64 const endBytes = std::min(within.endBytes, startOf(endBlock()));
        __int64 const beginBytes = std::max(within.startBytes, firstBlockBytes);
        if (beginBytes >= endBytes)
            return {};
        blk64_t free = 0;
        blk64_t const last = blockOf(endBytes - 1);
        if (::ext2fs_find_first_zero_block_bitmap2(m_fileSystem->block_map, blockOf(beginBytes),
                                                   last, &free) != 0)
            return {};
        blk64_t used = 0;
        bool const hasEnd =
            ::ext2fs_find_first_set_block_bitmap2(m_fileSystem->block_map, free, last, &used) == 0;
        return {std::max(beginBytes, startOf(free)), hasEnd ? startOf(used) : endBytes};
    }

    /// Whether the bitmap has as many free blocks as the superblock says.
    bool agreesWithCount() const {
        __int64 freeBytes = 0;
        Stretch rest{startOf(firstBlock()), startOf(endBlock())};
        for (Stretch free = findFree(rest); !free.isEmpty(); free = findFree(rest)) {
            freeBytes += free.endBytes - free.startBytes;
            rest.startBytes = free.endBytes;
        }
        // In blocks, also where the bitmap counts in clusters of them.
        auto const counted = static_cast<__int64>(::ext2fs_free_blocks_count(m_fileSystem->super));
        return freeBytes == counted * static_cast<__int64>(m_fileSystem->blocksize);
    }

private:
    blk64_t firstBlock() const { return m_fileSystem->super->s_first_data_block; }
    blk64_t endBlock() const { return ::ext2fs_blocks_count(m_fileSystem->super); }

    __int64 startOf(blk64_t block) const {
        return m_startBytes + static_cast<__int64>(block) * m_fileSystem->blocksize;
    }

    blk64_t blockOf(__int64 positionBytes) const {
        return static_cast<blk64_t>(positionBytes - m_startBytes) / m_fileSystem->blocksize;
    }

    ext2_filsys m_fileSystem;
    __int64 m_startBytes;
};

/// The file systems of all partitions, in the order of their places.
class FreeSpaceOfAll : public FreeSpace {
public:
    void add(std::unique_ptr<FreeSpace> part) { m_parts.push_back(std::move(part)); }
    bool isEmpty() const { return m_parts.empty(); }

    Stretch findFree(Stretch within) const override {
        Stretch first;
        for (std::unique_ptr<FreeSpace> const& part : m_parts) {
            Stretch const free = part->findFree(within);
            if (!free.isEmpty() && (first.isEmpty() || free.startBytes < first.startBytes))
                first = free;
        }
        return first;
    }

private:
    std::vector<std::unique_ptr<FreeSpace>> m_parts;
};

struct FileSystemEnd {
    void operator()(struct_ext2_filsys* fileSystem) const { ::ext2fs_free(fileSystem); }
};

using FileSystemHolder = std::unique_ptr<struct_ext2_filsys, FileSystemEnd>;

/// Why what a file system says is not to be believed; "" if it is.
std::string reasonAgainst(ext2_filsys fileSystem, __int64 sizeBytes) {
    ext2_super_block* const super = fileSystem->super;
    if (::ext2fs_has_feature_journal_dev(super))
        return "it is the journal of another one";
    if (::ext2fs_has_feature_journal_needs_recovery(super))
        return "its journal needs recovery: it is mounted, or was not cleanly unmounted";
    if ((super->s_state & EXT2_VALID_FS) == 0)
        return "it is mounted, or was not cleanly unmounted";
    if ((super->s_state & EXT2_ERROR_FS) != 0)
        return "it has errors on record, which e2fsck mends";
    auto const blocks = static_cast<unsigned long long>(::ext2fs_blocks_count(super));
    if (blocks > static_cast<unsigned long long>(sizeBytes) / fileSystem->blocksize)
        return "it is larger than what holds it";
    if (::ext2fs_read_block_bitmap(fileSystem) != 0)
        return "its bitmap cannot be read or fails its checksum";
    return "";
}

/// Adds what the file system there says, if there is one that this knows.
void addFileSystem(FreeSpaceOfAll& all, FoundFreeSpace& found, std::string const& path,
                   Stretch place, std::string const& name) {
    ext2_filsys opened = nullptr;
    std::string const options = "offset=" + std::to_string(place.startBytes);
    errcode_t const result = ::ext2fs_open2(path.c_str(), options.c_str(), EXT2_FLAG_64BITS, 0, 0,
                                            unix_io_manager, &opened);
    FileSystemHolder holder(opened);
    if (result == EXT2_ET_BAD_MAGIC || result == EXT2_ET_SHORT_READ)
        return;
    auto const refuse = [&](std::string const& reason) {
        found.refusals.push_back("The free blocks of the file system on " + name +
                                 " are not left out: " + reason + ".");
    };
    if (result != 0) {
        refuse("it cannot be opened");
        return;
    }
    std::string const reason = reasonAgainst(opened, place.endBytes - place.startBytes);
    if (!reason.empty()) {
        refuse(reason);
        return;
    }
    auto space = std::make_unique<ExtFreeSpace>(holder.release(), place.startBytes);
    if (space->agreesWithCount())
        all.add(std::move(space));
    else
        refuse("its bitmap does not agree with its count of free blocks");
}

} // namespace

bool canFindFreeSpace() {
    return true;
}

FoundFreeSpace findFreeSpace(std::string const& path) {
    ImageBytes bytes(path);
    PartitionTable const table = readPartitionTable(bytes);
    FoundFreeSpace found;
    auto all = std::make_unique<FreeSpaceOfAll>();
    if (table.kind == PartitionTable::Kind::None)
        addFileSystem(*all, found, path, {0, bytes.getSizeBytes()}, "the image");
    for (Partition const& partition : table.partitions) {
        if (!partition.isExtended) {
            addFileSystem(*all, found, path,
                          {partition.startBytes, partition.startBytes + partition.sizeBytes},
                          "partition " + std::to_string(partition.number));
        }
    }
    if (!all->isEmpty())
        found.space = std::move(all);
    return found;
}

} // namespace kelm::host

#else

namespace kelm::host {

bool canFindFreeSpace() {
    return false;
}

FoundFreeSpace findFreeSpace(std::string const& /*path*/) {
    throw yx::CIOError(yx::CIOError::NotSupported,
                       "This build of kelm cannot tell free blocks: it was made without libext2fs.",
                       yx::CProps(), nullptr);
}

} // namespace kelm::host

#endif
