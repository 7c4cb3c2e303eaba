#pragma once

#include <map>
#include <vector>

#include "host/backups/durable_files.h"
#include "host/disk/descriptor_edit.h"
#include "kelm/format/descriptor.h"
#include "yx/file_system.h"

namespace kelm::host {

/// What that file has behind the name of the main file.
inline constexpr char kDescriptorChangeSuffix[] = ".kelm-descriptor";

/// Whether a name is that of a file of which only a change in progress, or one that was killed, knows:
/// it may begin as a disk does, and is none.
bool isFileOfChange(yx::CURI const& file);

/// The file by which `mendDescriptor` works for a disk.
yx::CURI nameOfDescriptorChange(yx::CURI const& mainFile);

/// The descriptor of a disk, apart from the disk: no password is needed for it.
struct DescriptorFile {
    /// Where it lies.
    yx::CURI mainFile = {};

    /// Whether it lies in an extent; otherwise it is a file of text.
    bool isEmbedded = false;

    /// Where the area begins, which is 0 in a file of text.
    __int64 positionBytes = 0;

    /// The text and the zeros behind it. A disk in one file has its right name here
    /// (`correctOwnName`).
    DescriptorArea area = {};

    /// What the text says.
    CVMDKDescriptor parse() const;
};

/// Reads the descriptor of a disk. Errors are those of `CVMDKDescriptorAccessor`,
/// `verifyIsExtentOrText` and `correctOwnName`. A text that describes no disk is `yx::CIOError`
/// `CorruptData` "The file is no disk." with "uri".
DescriptorFile readDescriptorFile(yx::IFileSystem* fileSystem, yx::CURI const& mainFile);

/// Brings it to its file: a text by a new file, an area by writing over it (`DurableFiles::patch`).
void storeDescriptorFile(DurableFiles& files, DescriptorFile const& descriptor);

/// The descriptor with another name of its parent. The checksum stays true if it was. Lines keep
/// their places where they can (`replaceInArea`), so that mostly a single sector changes. An area
/// without room is `yx::CIOError` `NotSupported` "The descriptor inside the disk has no room for
/// the name of its parent." with "uri".
DescriptorFile withParentReference(DescriptorFile const& descriptor, yx::String const& reference);

/// Hangs a disk on another parent: by the reference to its main file, as `makeFileReference` makes
/// it, and by its content ID. The checksum stays true if it was.
///
/// A text is replaced at once. In an area, lines keep their places where they can
/// (`replaceInArea`). Where more than one sector changes, both areas are put into a file beside the
/// disk first (`nameOfDescriptorChange`), by which `mendDescriptor` undoes what a power cut has
/// torn.
///
/// Errors are those of `withParentReference` and of `files`; a descriptor that has no parent is
/// `yx::CInvalidArgError`.
void storeParent(DurableFiles& files, DescriptorFile const& descriptor, yx::String const& reference,
                 unsigned int contentID);

/// Makes a disk one without a parent, in the same way. The place of the name stays, as a comment, so
/// that no line moves: a power cut leaves a disk with its old parent or without one.
void storeNoParent(DurableFiles& files, DescriptorFile const& descriptor);

/// The descriptor as it is to be in the file `mainFile`: the extents in `newNames`, by their
/// normalised names of before, have their new ones, and all names are seen from the new folder. The
/// checksum stays true if it was. An area without room is `NotSupported` "The descriptor inside the
/// disk has no room for the names of its files." with "uri".
DescriptorFile movedTo(DescriptorFile const& descriptor, yx::CURI const& mainFile,
                       std::map<yx::CURI, yx::CURI> const& newNames);

/// The parent as the descriptor names it, normalised; empty for a disk without a parent or without
/// its name.
yx::CURI findParentFile(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile);

} // namespace kelm::host
