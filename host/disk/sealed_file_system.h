#pragma once

#include <memory>

#include "yx/file_system.h"

namespace kelm::host {

/// A file system on which a new disk is no disk until it is unsealed: the first sector of its main
/// file, without which nothing takes the file for a disk, is kept in memory and reads as written,
/// while the file itself has zeros there. So a disk can be made and marked in peace; whoever is
/// killed meanwhile leaves a file that nobody can mistake for a disk.
///
/// Passes everything else on to another file system. Not for streams that live on and are to be
/// fast: those that were opened before that stay on a detour.
class SealedFileSystem : public yx::CBase, public virtual yx::IFileSystem {
public:
    /// Seals the file of that name, which does not exist yet or is to be replaced.
    SealedFileSystem(yx::IFileSystem* fileSystem, yx::CURI const& uri);
    SealedFileSystem(SealedFileSystem const&) = delete;
    SealedFileSystem& operator=(SealedFileSystem const&) = delete;
    ~SealedFileSystem() override;

    /// Writes the sector into the file and brings it to the device. Everything else that belongs to
    /// the disk should be there already. A failure leaves the file sealed. Does nothing the second
    /// time, and for a file that was not made.
    void unseal();

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* reserved) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;

private:
    class SealedStream;
    struct Seal;

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_uri;
    std::shared_ptr<Seal> m_seal;
};

/// Whether a file is what is there of a main file before it is unsealed: zeros, or zeros in its
/// first sector, as far as it has one, and then what a main file has there, text of a description or
/// directories of tables. A raw image that begins with zeros has something else behind them, or
/// nothing but zeros for 128 KiB. False for what is not there and for what is no regular file; errors
/// are those of reading.
bool isSealedFile(yx::IFileSystem* fileSystem, yx::CURI const& uri);

} // namespace kelm::host
