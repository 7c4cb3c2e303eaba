#pragma once

#include "kelm/graindata/data_preparer.h"

namespace kelm {

/// A whole grain of zeros in prepared form, prepared once and given any index. Keep one with each
/// preparer; grains of other content are prepared by `CVMDKDataPreparer` itself.
class CVMDKPreparedZeroGrain {
public:
    /// The zero grain of that index, as `preparer` prepares it; errors are those of
    /// `prepareGrainData`. `preparer` and `grainSizeBytes` are the same in each call. The result
    /// holds until the next call.
    yx::TBuffer<unsigned char> const& get(CVMDKDataPreparer& preparer, __int64 grainSizeBytes,
                                          __int64 grainIndex) {
        if (!m_prepared) {
            auto const zeros =
                yx::makeObject<yx::TBuffer<unsigned char>>(static_cast<int>(grainSizeBytes), -1);
            yx::initMemory(zeros->getData(), 0, static_cast<std::size_t>(grainSizeBytes));
            auto const aux = yx::makeObject<yx::TBuffer<unsigned char>>();
            m_prepared = preparer.prepareGrainData(zeros.get(), 0, aux.get());
        }
        preparer.patchGrainIndexInPreparedGrainData(*m_prepared, grainIndex);
        return *m_prepared;
    }

    /// What the last call of `get` returned; there must have been one.
    yx::TBuffer<unsigned char> const& getLast() const { return *m_prepared; }

private:
    yx::P<yx::TBuffer<unsigned char>> m_prepared;
};

} // namespace kelm
