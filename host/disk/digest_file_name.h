#pragma once

#include "yx/file_system.h"

namespace kelm::host {

/// What the name of the file with a disk's digests ends with, behind the name of the main file.
inline constexpr char kDigestFileExtension[] = ".digests";

/// What a digest file begins with, and how much of it is its header.
inline constexpr char kDigestFileMagic[] = "KELMDGST";
inline constexpr int kDigestFileHeaderBytes = 512;

/// The file beside the main file of a disk that has the digests of its grains, if there is one.
yx::CURI digestFileOf(yx::CURI const& mainFile);

/// Whether a file is a digest file by its first bytes, or one whose making was ended. False for what
/// is not there or cannot be read.
bool isDigestFile(yx::IFileSystem* fileSystem, yx::CURI const& uri);

/// Makes a digest file one whose making was ended, on the device, since deleting a file alone does not
/// last on every file system. Does nothing if the file may not be written to.
void voidDigestFile(yx::IFileSystem* fileSystem, yx::CURI const& uri);

/// Deletes the digests of a disk that is gone: those of `mainFile`, if that is not there. A file of
/// that name that is no digest file stays.
void deleteLeftDigests(yx::IFileSystem* fileSystem, yx::CURI const& mainFile);

} // namespace kelm::host
