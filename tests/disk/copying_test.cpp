#include <type_traits>

#include <gtest/gtest.h>

#include "kelm/kelm.h"

namespace {

using namespace kelm;

template <class... Types>
constexpr bool areCopyable = (... && std::is_copy_constructible_v<Types>);

template <class... Types>
constexpr bool areAssignable = (... && std::is_copy_assignable_v<Types>);

static_assert(areCopyable<CVMDKSparseExtentHeader, CVMDKDescriptor, CVMDKDescriptor::CGenericEntry,
                          CVMDKDescriptor::CNameValueEntry, CVMDKExtentInfo,
                          CVMDKDescriptorAccessor, CVMDKContentIDUpdater>);
static_assert(
    areCopyable<CVMDKGrainTable, CVMDKGrainDirectory, CVMDKGrainTableCache, CVMDKGrainAllocator>);
static_assert(areCopyable<CVMDKDisk, CVMDKDiskIOStream, CVMDKSpaceInfo, CVMDKLowLevelFileStream>);

static_assert(areAssignable<CVMDKSparseExtentHeader, CVMDKDescriptor, CVMDKDescriptorEntry,
                            CVMDKDescriptor::CGenericEntry, CVMDKDescriptor::CNameValueEntry,
                            CVMDKExtentInfo, CVMDKDescriptorAccessor, CVMDKContentIDUpdater>);
static_assert(areAssignable<CVMDKGrainTable, CVMDKGrainDirectory, CVMDKGrainTableCache,
                            CVMDKGrainAllocator, IVMDKGrainAllocator>);
static_assert(
    areAssignable<CVMDKDisk, CVMDKDiskIOStream, CVMDKSpaceInfo, CVMDKLowLevelFileStream, IDisk>);

TEST(ExportedClasses, CopyMemberByMember) {
    CVMDKSpaceInfo info;
    info.setPayloadSize(1);
    info.setDeadSpaceSize(2);
    CVMDKSpaceInfo const copy(info);
    info.setPayloadSize(3);
    EXPECT_EQ(copy.getPayloadSize(), 1);
    EXPECT_EQ(copy.getDeadSpaceSize(), 2);
}

} // namespace
