#include "kelm/extent/reverse_incremental_writer.h"

namespace kelm {

CVMDKReverseIncrementalWriter::CVMDKReverseIncrementalWriter(CVMDKReverseIncrementalWriter const&) =
    default;
CVMDKReverseIncrementalWriter& CVMDKReverseIncrementalWriter::operator=(
    CVMDKReverseIncrementalWriter const&) = default;
CVMDKReverseIncrementalWriter::~CVMDKReverseIncrementalWriter() = default;

} // namespace kelm
