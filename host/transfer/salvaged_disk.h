#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host/disk/disk_file_system.h"
#include "host/disk/disk_key.h"
#include "host/system/cancel.h"
#include "host/transfer/damage_list.h"

namespace kelm::host {

/// How a damaged disk is read.
struct SalvageOptions {
    /// Whether a damaged grain reads as its parent has it, which is older content. Otherwise it
    /// reads as zeros.
    bool fromParent = false;

    /// How far descriptors are believed, as for `SafeDisk`.
    DiskTrust trust;

    /// May be null.
    CancelFlag const* cancel = nullptr;
};

/// A disk of which as much is read as there is, whatever is damaged but its descriptors. For
/// reading from start to end, when `SafeDisk` and what is built on it rightly refuse.
///
/// `CVMDKDisk` cannot serve here: it opens no extent whose header, directories or slot sizes are
/// damaged, loads tables in runs of 32 that fail as a whole, reads the main tables alone, and
/// believes every record that a table leads to. So the files are read by classes of our own, from
/// the descriptor on, and only the decoding of a grain is the library's:
///
/// - `HeaderOverlay` and `findHeader` put a lost header right.
/// - `SalvagedTables` chooses each entry of the tables from the two copies.
/// - `StoredGrains` reads a grain and believes a record only if it names the grain and decodes. A
///   plain grain that is not enciphered loses no more than the sectors that cannot be read.
/// - Extent files that are missing, but for those made on demand, are damage of their whole
///   stretch. A parent that is missing, is damaged beyond reading or has changed is damage of all
///   grains that should come from it; of one that has changed, `fromParent` takes them all the
///   same.
///
/// What is damaged is noted in a list. Of grains whose place is doubtful, the list says so, and
/// they read as what was found.
///
/// Files are reached and locked as those of a disk that is opened for reading. Serves one thread.
class SalvagedDisk {
public:
    /// Opens the descriptors of the disk and of its parents. A main file that does not exist is
    /// `CIOError` `NotFound`; a descriptor of the disk itself that cannot be read is an error as of
    /// `CVMDKDescriptorAccessor`. A disk or parent that is in use, unfinished, encrypted with
    /// another password or not to be trusted is an error as of `SafeDisk`.
    SalvagedDisk(yx::IFileSystem* fileSystem, yx::CURI const& uri, yx::String const& password,
                 SalvageOptions const& options);
    SalvagedDisk(SalvagedDisk const&) = delete;
    SalvagedDisk& operator=(SalvagedDisk const&) = delete;
    ~SalvagedDisk();

    /// The size of the disk by its descriptor.
    __int64 getSizeBytes() const;

    /// Of the disk itself.
    yx::P<CVMDKDescriptor> getDescriptor() const;

    /// All files of the disk and of its parents, missing ones too.
    std::vector<yx::CURI> listFiles() const;

    /// Reads `bytes` bytes that lie in the disk. Returns false for a range that no file holds;
    /// `buffer` then has zeros. Positions must rise from call to call.
    bool read(__int64 positionBytes, unsigned char* buffer, int bytes);

    /// How many bytes from a position on, at most `maxBytes`, `read` is known to return false for
    /// without finding damage; 0 says nothing. The range lies in the disk. Positions rise from call
    /// to call, together with those of `read`.
    __int64 countAbsentBytes(__int64 positionBytes, __int64 maxBytes);

    /// What has turned out to be damaged in what was read so far.
    DamageList const& getDamage() const { return m_damage; }

    /// Empties the list, to read from the start again.
    void forgetDamage() { m_damage = DamageList(); }

private:
    class Level;

    /// Where something is read.
    struct Place {
        /// In the disk or the parent that is read, and in the disk itself.
        __int64 positionBytes;
        __int64 diskPositionBytes;

        /// Whether damage goes into the list; not where it has been noted already.
        bool isNoted;

        Place behind(int bytes) const {
            return {positionBytes + bytes, diskPositionBytes + bytes, isNoted};
        }
        Place noted(bool isStillNoted) const {
            return {positionBytes, diskPositionBytes, isNoted && isStillNoted};
        }
    };

    void openLevels(yx::CURI const& uri, yx::String const& password);
    void note(Place const& place, int startBytes, int endBytes, yx::CURI const& file,
              std::string const& reason);
    bool readFrom(std::size_t level, Place place, unsigned char* buffer, int bytes);
    bool readInstead(std::size_t level, Place const& place, unsigned char* buffer, int bytes);
    bool readFromBelow(std::size_t level, Place const& place, unsigned char* buffer, int bytes);

    SalvageOptions m_options;
    yx::P<DiskFileSystem> m_files;
    std::vector<std::unique_ptr<Level>> m_levels;

    /// The parent that the last level should have and has not, and why; empty if it needs none.
    yx::CURI m_missingParent;
    std::string m_missingReason;

    DamageList m_damage;
};

} // namespace kelm::host
