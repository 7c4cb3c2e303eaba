#pragma once

#include "kelm/extent/data_provider.h"
#include "kelm/graindata/data_preparer.h"
#include "kelm/metadata/grain_table_cache.h"
#include "yx/file_system.h"
#include "yx/uri.h"

namespace kelm {

class CVMDKDisk;

/// The whole message of the error with which a parent of another grain size or compression refuses
/// to hand out prepared grains. No code of the error says it, so hosts compare with this.
inline constexpr char kParentIncompatibleMessage[] = "Parent disk is incompatible with diff disk.";

/// The parent disk of a child disk as a source of bytes and prepared grains.
///
/// The parent is opened, read-only, at the first request, so a child whose grains are all its own
/// opens no parent file. That is also where the promise of the child's descriptor is tested: that
/// the parent is the very disk that the child was made from. A failed opening is logged, passes on,
/// and is tried again by the next request.
class KELM_API CVMDKParentDiskDataProvider : public yx::CBase, public virtual IVMDKDataProvider {
public:
    /// The most parents in a chain. Every level costs stack and an open file; no chain of backups
    /// comes near this.
    static constexpr int kMaxChainDepth = 255;

    /// `childURI` is the child's main file, `parentContentID` and `parentFileNameHint` are what its
    /// descriptor says of the parent, `grainSizeSectors` is the child's. The parent is opened with
    /// `password`, `compressionLevel` and `grainTableCache`. A `parentDisk` that is given (it may
    /// be null) is used as it is and never compared with `parentContentID`. Opens nothing; a hint
    /// that names no file throws what `vmdkFileReferenceToURI` throws.
    CVMDKParentDiskDataProvider(yx::IFileSystem* fileSystem, yx::CURI const& childURI,
                                unsigned int parentContentID, yx::String const& parentFileNameHint,
                                __int64 grainSizeSectors, yx::String const& password,
                                int compressionLevel, CVMDKGrainTableCache* grainTableCache,
                                CVMDKDisk* parentDisk);

    ~CVMDKParentDiskDataProvider() override;

    /// The parent's main file.
    yx::CURI getParentDiskMainFileURI() const { return m_parentDiskMainURI; }

    /// Opens the parent if that has not been done. A content ID other than the expected one is
    /// `yx::CIOError` `CorruptData` "VMDK parent disk has changed, but a child disk depended on
    /// it." with "parentURI", "childURI", "expectedContentID" and "actualContentID".
    void ensureParentDiskOpen();

    /// Tells how many disks stand above the parent, for a child that is a parent itself. A chain of
    /// more than 255 parents, as files that name each other in a circle make it, is `yx::CIOError`
    /// `CorruptData` "VMDK parent chain is too long." when it is followed that far.
    void setChainDepth(int depth) { m_chainDepth = depth; }

    /// What lies behind the parent's end reads as zeros.
    void getData(__int64 position, void* buffer, int bytes) override;

    /// A parent of another grain size or compression is `yx::CError`
    /// `kParentIncompatibleMessage`. Behind the parent's end this gives a prepared zero grain.
    void getPreparedGrainData(__int64 position, yx::TBuffer<unsigned char>& data,
                              int grainSizeBytes, bool compressed) override;

    /// False behind the parent's end.
    bool isGrainWritten(__int64 position) override;

protected:
    /// Notes the parent's size, -1 while it is not open.
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
    // Part of the object's shape; every operation takes the grain size from its caller.
    [[maybe_unused]] __int64 m_grainSizeBytes;
    yx::CURI m_parentDiskMainURI;
    yx::P<CVMDKDisk> m_parentDisk;
    __int64 m_parentDiskSizeBytes = -1;
    yx::String m_password;
    yx::P<CVMDKDataPreparer> m_dataPreparer;
    yx::P<yx::TBuffer<unsigned char>> m_zeroGrain;
    yx::P<yx::TBuffer<unsigned char>> m_auxBuffer;
    yx::P<yx::TBuffer<unsigned char>> m_preparedZeroGrain;
    int m_chainDepth = 0;
};

} // namespace kelm
