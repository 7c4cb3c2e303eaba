#include "compressors/internal/mzu_coder.h"

namespace mzu {

std::unique_ptr<IEncoder> makeFastestEncoder() {
    return nullptr;
}

} // namespace mzu
