#include "host/disk/chain_keys.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <future>
#include <set>

#include "host/disk/disk_key.h"
#include "host/disk/disk_reach.h"
#include "host/disk/safe_disk.h"
#include "host/system/key_derivation.h"
#include "kelm/format/file_reference.h"

namespace kelm::host {

namespace {

struct EncryptedDisk {
    yx::CURI mainFile;
    CVMDKDescriptor descriptor;
};

CVMDKDescriptor readDescriptorOf(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, mainFile, yx::IIOStream::ReadOnly);
    return *CVMDKDescriptorAccessor(stream.get(), yx::IIOStream::ReadOnly).getDescriptor();
}

yx::CURI findParentOf(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile) {
    yx::String hint;
    if (descriptor.getParentContentID() == kNoParentContentID ||
        !descriptor.tryGetParentFileNameHint(hint))
        return {};
    return vmdkFileReferenceToURI(mainFile.getParent(), hint);
}

/// The encrypted disks of a chain, as far as it can be read.
std::vector<EncryptedDisk> listLockedDisks(yx::IFileSystem* fileSystem, yx::CURI mainFile) {
    std::vector<EncryptedDisk> disks;
    try {
        for (std::size_t count = 0; count <= kMaxChainLength && !mainFile.isEmpty(); ++count) {
            if (!fileSystem->fileExists(mainFile))
                break;
            DiskReach::verifyParent(mainFile);
            CVMDKDescriptor const descriptor = readDescriptorOf(fileSystem, mainFile);
            if (descriptor.isEncrypted())
                disks.push_back({mainFile, descriptor});
            mainFile = findParentOf(descriptor, mainFile);
        }
    } catch (yx::CError const& error) {
        // The opening meets it too, and says what it is.
        error.nop();
    }
    return disks;
}

/// Whether the password is the disk's.
bool opens(EncryptedDisk const& disk, yx::String const& password) {
    try {
        unwrapDiskKey(disk.descriptor, disk.mainFile, password);
        return true;
    } catch (CancelledError const&) {
        throw;
    } catch (TooManyRoundsError const&) {
        throw;
    } catch (yx::CError const& error) {
        error.nop();
        return false;
    }
}

/// Keeps the key that one password leads to as that of another one.
void keepKeyAsThatOf(yx::String const& password, EncryptedDisk const& disk, yx::String const& right,
                     DerivedKeys& keys) {
    KeyDerivationSettings const settings = getKeyDerivation(disk.descriptor);
    yx::String const text = disk.descriptor.getYxEncryptionKeyDerivationAlgorithm();
    yx::TCryptBuffer<unsigned char> key;
    CVMDKDisk::deriveEncryptKey(key, krym::CCipher_AES256CBC().getKeySize(), right, text,
                                settings.salt);
    wxCharBuffer utf8(password.toUTF8());
    keys.put({utf8.data(), static_cast<int>(std::strlen(utf8.data())), settings.salt.getData(),
              settings.salt.getUsed(), static_cast<int>(settings.rounds), key.getUsed()},
             key.getData());
    yx::initMemory(utf8.data(), 0, utf8.length());
}

void unlock(EncryptedDisk const& disk, ChainPasswords const& passwords, DerivedKeys& keys) {
    if (!passwords.ofDisk.isEmpty() && opens(disk, passwords.ofDisk))
        return;
    if (!passwords.ofParents.isEmpty() && !passwords.ofDisk.isEmpty() &&
        opens(disk, passwords.ofParents))
        keepKeyAsThatOf(passwords.ofDisk, disk, passwords.ofParents, keys);
}

/// One disk for each distinct derivation.
std::vector<EncryptedDisk> keepDistinct(std::vector<EncryptedDisk> disks) {
    std::set<std::pair<std::vector<unsigned char>, std::string>> seen;
    std::erase_if(disks, [&](EncryptedDisk const& disk) {
        try {
            yx::TBuffer<unsigned char> const salt =
                disk.descriptor.getYxEncryptionKeyDerivationSalt();
            return !seen.emplace(
                            std::vector<unsigned char>(salt.getData(),
                                                       salt.getData() + salt.getUsed()),
                            disk.descriptor.getYxEncryptionKeyDerivationAlgorithm().toStdString())
                        .second;
        } catch (yx::CError const& error) {
            error.nop();
            return true;
        }
    });
    return disks;
}

} // namespace

void deriveKeysOfChain(yx::IFileSystem* fileSystem, yx::CURI const& mainFile,
                       ChainPasswords const& passwords, DerivedKeys& keys, int threads) {
    std::vector<EncryptedDisk> const disks = keepDistinct(listLockedDisks(fileSystem, mainFile));
    std::atomic<std::size_t> next = 0;
    auto const work = [&] {
        for (std::size_t index = next++; index < disks.size(); index = next++)
            unlock(disks[index], passwords, keys);
    };
    std::vector<std::future<void>> others;
    auto const wanted = std::min<std::size_t>(disks.size(), static_cast<std::size_t>(threads));
    for (std::size_t count = 1; count < wanted; ++count)
        others.push_back(std::async(std::launch::async, work));
    work();
    for (std::future<void>& other : others)
        other.get();
}

} // namespace kelm::host
