#include "kelm/extent/null_extent_file.h"
#include "kelm/extent/parent_disk_data_provider.h"
#include "tests/extent/extent_fixture.h"

namespace extent_test {

namespace {

class Copying : public ExtentTest {
protected:
    kelm::CVMDKNullExtentFile makeNullExtent(__int64 sizeSectors) {
        return kelm::CVMDKNullExtentFile(uri, kStartGrainIndex, kGrainSizeSectors, sizeSectors, 512,
                                         false, 6, nullptr);
    }

    kelm::CVMDKParentDiskDataProvider makeProvider(char const* hint) {
        return kelm::CVMDKParentDiskDataProvider(memory.get(), yx::CURI(kMainURI), 1, hint,
                                                 kGrainSizeSectors, "", 6, nullptr, nullptr);
    }
};

TEST_F(Copying, CopiedNullExtentHasTheSameSizeAndCursor) {
    kelm::CVMDKNullExtentFile extent = makeNullExtent(64);
    extent.seek(64 * 512);
    kelm::CVMDKNullExtentFile const copy(extent);
    EXPECT_EQ(copy.getPosition(), 64 * 512);
    kelm::CVMDKNullExtentFile assigned = makeNullExtent(8);
    assigned = extent;
    EXPECT_EQ(assigned.getPosition(), 64 * 512);
    assigned.seek(0);
    EXPECT_EQ(extent.getPosition(), 64 * 512);
}

TEST_F(Copying, CopiedSparseExtentReadsTheSameFile) {
    createExtent(kCompressed);
    yx::P<kelm::CVMDKSparseExtentFile> const extent = openExtent(kCompressed);
    writeAt(*extent, 4096, pattern(8192, 1));
    kelm::CVMDKSparseExtentFile copy(*extent);
    EXPECT_EQ(copy.getPosition(), 3 * 4096);
    EXPECT_TRUE(sameBytes(pattern(8192, 1), readAt(copy, 4096, 8192)));
    yx::P<kelm::CVMDKSparseExtentFile> const assigned = openExtent(kCompressed);
    *assigned = copy;
    EXPECT_TRUE(sameBytes(pattern(8192, 1), readAt(*assigned, 4096, 8192)));
}

TEST_F(Copying, CopiedOnDemandExtentMakesAFileOfItsOwn) {
    yx::P<kelm::CVMDKGrainTableCache> const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    kelm::CVMDKOnDemandExtentFile extent(memory.get(), uri, IIOStream::ReadWrite, kStartGrainIndex,
                                         kGrainSizeSectors, kGrainCount * kGrainSizeSectors, 512,
                                         false, 6, nullptr, cache.get(), updater.get(), nullptr, {},
                                         {}, {});
    kelm::CVMDKOnDemandExtentFile copy(extent);
    writeAt(copy, 4096, pattern(4096, 2));
    copy.flushChanges();
    EXPECT_TRUE(memory->fileExists(uri));
    // The one that was copied still has its null extent.
    EXPECT_TRUE(sameBytes(zeros(4096), readAt(extent, 4096, 4096)));
    extent = copy;
    EXPECT_TRUE(sameBytes(pattern(4096, 2), readAt(extent, 4096, 4096)));
}

TEST_F(Copying, CopiedProviderNamesTheSameParent) {
    kelm::CVMDKParentDiskDataProvider const original = makeProvider("parent.vmdk");
    kelm::CVMDKParentDiskDataProvider const copy(original);
    EXPECT_EQ(copy.getParentDiskMainFileURI(), yx::CURI("mem:/d/parent.vmdk"));
    kelm::CVMDKParentDiskDataProvider assigned = makeProvider("other.vmdk");
    assigned = original;
    EXPECT_EQ(assigned.getParentDiskMainFileURI(), yx::CURI("mem:/d/parent.vmdk"));
}

} // namespace

} // namespace extent_test
