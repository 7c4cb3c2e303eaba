#pragma once

#include "kelm/export.h"
#include "yx/list.h"
#include "yx/path_impl.h"

namespace kelm {

/// Reserved for a writer that keeps the newest state whole and stores what it replaces. It holds
/// the shape that hosts link against and has no operations yet.
class KELM_API CVMDKReverseIncrementalWriter : public yx::CBase {
public:
    /// A grain that waits to be stored. What its members mean is not settled.
    struct PostponedGrain {
        /// Reserved.
        __int64 m_value1 = 0;
        yx::P<yx::CBase> m_object;
        __int64 m_value2 = 0;
    };

    /// Copies share the object references.
    CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter const&);
    CVMDKReverseIncrementalWriter& operator=(CVMDKReverseIncrementalWriter const&);

    /// Releases the members; flushes and writes nothing.
    ~CVMDKReverseIncrementalWriter() override;

private:
    yx::TPathImpl<yx::CWindowsPathTraits> m_path1;
    yx::TPathImpl<yx::CWindowsPathTraits> m_path2;
    yx::P<yx::CBase> m_object;
    yx::TList<PostponedGrain> m_postponedGrains;
    [[maybe_unused]] __int64 m_value = 0;
};

} // namespace kelm
