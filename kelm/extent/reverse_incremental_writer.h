#pragma once

#include "kelm/export.h"
#include "yx/list.h"
#include "yx/path_impl.h"

namespace kelm {

/// Reserved for a writer that keeps the newest state complete and stores the data that it replaces.
/// It has no operations yet and cannot be used; it only defines the layout that hosts link against.
class KELM_API CVMDKReverseIncrementalWriter : public yx::CBase {
public:
    /// A grain that is to be stored later. The meaning of its members is not defined yet.
    struct PostponedGrain {
        /// Reserved.
        __int64 m_value1 = 0;
        yx::P<yx::CBase> m_object;
        __int64 m_value2 = 0;
    };

    /// Copies share the object references.
    CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter const&);
    CVMDKReverseIncrementalWriter& operator=(CVMDKReverseIncrementalWriter const&);

    /// Releases the members. Writes nothing.
    ~CVMDKReverseIncrementalWriter() override;

private:
    yx::TPathImpl<yx::CWindowsPathTraits> m_path1;
    yx::TPathImpl<yx::CWindowsPathTraits> m_path2;
    yx::P<yx::CBase> m_object;
    yx::TList<PostponedGrain> m_postponedGrains;
    [[maybe_unused]] __int64 m_value = 0;
};

} // namespace kelm
