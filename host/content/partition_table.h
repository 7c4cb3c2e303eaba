#pragma once

#include <string>
#include <vector>

#include "host/content/byte_source.h"

namespace kelm::host {

/// A part of a disk that its partition table names.
struct Partition {
    /// As Linux counts: the place in the table, from 1; those within an extended partition from 5.
    int number = 0;

    /// Where it lies on the disk.
    __int64 startBytes = 0;
    __int64 sizeBytes = 0;

    /// The GUID of a GPT in lower case, or the byte of another table as "0x83".
    std::string type;

    /// What that is, for people; "" if it is not known here.
    std::string typeName;

    /// In UTF-8; only a GPT has labels.
    std::string label;

    /// The GUID of a GPT, or what Linux makes of the ID of another table, such as "2ab54c28-01".
    std::string uuid;

    /// It holds the partitions from 5 on, and nothing else.
    bool isExtended = false;
};

/// The partitions of a disk: of a GPT, or of the table in the first sector (MBR) with its chain of
/// extended partitions. Of other kinds nothing is known.
struct PartitionTable {
    /// Which table it is. None is also a kind that is not known.
    enum class Kind { None, GPT, MBR };

    /// Where there is none, the rest says nothing.
    Kind kind = Kind::None;

    /// The GUID of a GPT, or the ID of another table, such as "2ab54c28".
    std::string uuid;

    /// The unit in which the table counts.
    int sectorSizeBytes = 0;

    /// In the order of their numbers.
    std::vector<Partition> partitions;

    /// What is wrong with the table, in sentences. Partitions that cannot be are not listed.
    std::vector<std::string> problems;

    /// The partition of that number; null if there is none.
    Partition const* find(int number) const;
};

/// Reads the partition table of a disk. A damaged GPT is read from its copy at the end of the disk.
/// Anything may stand there: whatever is no table is none, and memory and time are bounded. Errors
/// are those of reading alone.
PartitionTable readPartitionTable(ByteSource& disk);

} // namespace kelm::host
