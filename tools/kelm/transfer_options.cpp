#include "tools/kelm/transfer_options.h"

#include "host/system/idle_io.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/invocation.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

void TransferOptions::addTo(CLI::App& command) {
    addSizeOption(command, "--limit-rate", bytesPerSecond,
                  "Read no more than so many bytes a second; as fast as it goes by default");
    addFlag(command, "--nice-io", isNice,
            "Use devices only while nobody else wants them, where their schedulers know that");
}

void TransferOptions::takeEffect(Invocation& invocation) const {
    invocation.setLong();
    if (bytesPerSecond == 0)
        throw UsageError("With --limit-rate 0 nothing would ever be done.");
    if (bytesPerSecond > 0)
        invocation.getMeter().setLimit(host::RateLimit(bytesPerSecond, &invocation.getCancel()));
    if (isNice)
        host::useIdleIO();
}

} // namespace kelm::tool
