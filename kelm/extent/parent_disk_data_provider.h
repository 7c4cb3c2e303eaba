#pragma once

#include "kelm/extent/data_provider.h"
#include "kelm/graindata/prepared_zero_grain.h"
#include "kelm/metadata/grain_table_cache.h"
#include "yx/file_system.h"
#include "yx/uri.h"

namespace kelm {

class CVMDKDisk;

/// The message of the error that refuses prepared grains of a parent with another grain size or
/// compression. The error has no code of its own, so hosts compare with this.
inline constexpr char kParentIncompatibleMessage[] = "Parent disk is incompatible with diff disk.";

/// Provides a child disk with the data of its parent disk, as plain bytes and as prepared grains.
///
/// The parent is opened read-only by the first request, so a child that stores all its grains
/// itself never opens it. Opening it includes a check that it has not changed since the child was
/// made: its content ID must be the one in the child's descriptor. If the opening fails, the error
/// is logged and passes through, and the next request tries again.
class KELM_API CVMDKParentDiskDataProvider : public yx::CBase, public virtual IVMDKDataProvider {
public:
    /// The maximum number of parents in a chain. Each level needs stack and an open file. No chain
    /// of backups is nearly this long.
    static constexpr int kMaxChainDepth = 255;

    /// `childURI` is the child's main file; `parentContentID` and `parentFileNameHint` are those of
    /// its descriptor; `grainSizeSectors` is the child's. The parent is opened with `password`,
    /// `compressionLevel` and `grainTableCache`. If `parentDisk` is not null, it is used instead,
    /// and its content ID is not checked. Opens nothing. For a hint that is no file name, throws
    /// what `vmdkFileReferenceToURI` throws.
    CVMDKParentDiskDataProvider(yx::IFileSystem* fileSystem, yx::CURI const& childURI,
                                unsigned int parentContentID, yx::String const& parentFileNameHint,
                                __int64 grainSizeSectors, yx::String const& password,
                                int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                                CVMDKDisk* parentDisk);

    /// A copy shares the parent if it is open, and opens one of its own otherwise.
    CVMDKParentDiskDataProvider(CVMDKParentDiskDataProvider const&);
    CVMDKParentDiskDataProvider& operator=(CVMDKParentDiskDataProvider const&);

    /// Wipes the password.
    ~CVMDKParentDiskDataProvider() override;

    /// The parent's main file.
    yx::CURI getParentDiskMainFileURI() const { return m_parentDiskMainURI; }

    /// Opens the parent if it is not open. Throws `yx::CIOError` `CorruptData` "VMDK parent disk
    /// has changed, but a child disk depended on it." with "parentURI", "childURI",
    /// "expectedContentID" and "actualContentID" if its content ID is not the expected one.
    void ensureParentDiskOpen();

    /// The parent, opened by `ensureParentDiskOpen`.
    yx::P<CVMDKDisk> getParentDisk();

    /// Sets the number of disks that depend on this child, each through the next; 0 at first. If
    /// opening the parent would make a chain of more than 255 parents, as files that name each
    /// other in a circle do, it throws `yx::CIOError` `CorruptData` "VMDK parent chain is too
    /// long." with "parentURI" and "childURI".
    void setChainDepth(int depth) { m_chainDepth = depth; }

    /// Past the parent's end it provides zeros.
    void getData(__int64 position, void* buffer, int bytes) override;

    /// Throws `yx::CError` `kParentIncompatibleMessage` if the parent's grain size or compression
    /// is another. Past the parent's end it provides a prepared zero grain.
    void getPreparedGrainData(__int64 position, yx::TBuffer<unsigned char>& data,
                              int grainSizeBytes, bool compressed) override;

    /// False past the parent's end.
    bool isGrainWritten(__int64 position) override;

protected:
    /// Stores the parent's size for the checks against its end; -1 while it is not open.
    void fetchParentDiskSize();

private:
    void openParentDisk();
    void verifyCompatible(int grainSizeBytes, bool compressed);
    void fillWithPreparedZeroGrain(__int64 position, yx::TBuffer<unsigned char>& data,
                                   int grainSizeBytes);

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_childURI;
    unsigned int m_parentContentID;
    yx::String m_parentFileNameHint;
    [[maybe_unused]] __int64 m_grainSizeSectors;
    int m_compressionLevel;
    yx::P<CVMDKGrainTableCache> m_grainTableCache;
    // Part of the object's layout; every operation is given the grain size by its caller.
    [[maybe_unused]] __int64 m_grainSizeBytes;
    yx::CURI m_parentDiskMainURI;
    yx::P<CVMDKDisk> m_parentDisk;
    __int64 m_parentDiskSizeBytes = -1;
    yx::String m_password;
    yx::P<CVMDKDataPreparer> m_dataPreparer;
    CVMDKPreparedZeroGrain m_preparedZeroGrain;
    int m_chainDepth = 0;
};

} // namespace kelm
