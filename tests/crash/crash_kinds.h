#pragma once

#include <ostream>
#include <string>
#include <vector>

#include "tests/support/safe_disks.h"

namespace test_support {

constexpr int kGrainCount = static_cast<int>(kSmallestDiskBytes / kGrainBytes);

/// A disk of 8 MiB, with or without a parent.
struct CrashKind {
    DiskKind disk;
    bool isChild = false;

    /// The child's grains cannot be the parent's records, since the parent stores them plain.
    bool hasPlainParent = false;

    std::string name() const { return (isChild ? "child_" : "") + std::string(disk.name); }
    bool isEncrypted() const { return disk.password[0] != '\0'; }
};

inline std::ostream& operator<<(std::ostream& stream, CrashKind const& kind) {
    return stream << kind.name();
}

/// Every kind of disk, and the same again as children.
inline std::vector<CrashKind> allCrashKinds() {
    std::vector<CrashKind> kinds;
    for (bool const isChild : {false, true}) {
        for (DiskKind const& disk : allDiskKinds())
            kinds.push_back({disk, isChild, isChild && disk.compressed && disk.onDemand});
    }
    return kinds;
}

constexpr char kMainFile[] = "disk.vmdk";
constexpr char kParentFile[] = "parent.vmdk";

inline yx::CURI crashURI(std::string const& name) {
    return yx::CURI(yx::String::fromUTF8("mem:///disks/" + name));
}

/// What a disk of this kind is made of.
NewDisk requestFor(CrashKind const& kind);

/// Makes the parent of a child disk; its even grains below 16 hold data. Nothing for other kinds.
void makeParent(CrashKind const& kind, yx::IFileSystem* files);

/// The content of a grain of the parent, or of a disk without one, while nothing was written.
Bytes const& grainBelow(CrashKind const& kind, int grain);

/// Makes a disk of this kind, and its parent before it.
void makeDisk(CrashKind const& kind, yx::IFileSystem* files);

/// Makes opening an enciphered disk ten times as fast: its key is wrapped anew with the fewest
/// rounds that a password may be stretched by.
void stretchPasswordLess(CrashKind const& kind, yx::IFileSystem* files,
                         std::string const& name = kMainFile);

/// The first grain of each extent, and the grain count at the end.
std::vector<int> extentStarts(yx::IFileSystem* files);

} // namespace test_support
