#include "host/transfer/transfer_progress.h"

#include <vector>

#include <gmock/gmock.h>

namespace kelm::host {
namespace {

using testing::ElementsAre;

TEST(TransferProgress, NeverFallsWhereReadingRunsAheadOfWriting) {
    std::vector<__int64> reported;
    WorkOptions options;
    options.progress = [&reported](__int64 doneBytes, __int64) { reported.push_back(doneBytes); };
    TransferProgress progress(options, 100);
    // The whole is reported at once, anything less some ten times a second.
    progress.advanceTo(100);
    progress.advanceTo(30);
    EXPECT_THAT(reported, ElementsAre(100, 100));
    progress.finish(100);
    EXPECT_THAT(reported, ElementsAre(100, 100, 100));
}

TEST(TransferProgress, EndsTheTransferWhenItIsCancelled) {
    CancelFlag cancel;
    WorkOptions options;
    options.cancel = &cancel;
    TransferProgress progress(options, -1);
    progress.advanceTo(5);
    cancel.set();
    EXPECT_THROW(progress.advanceTo(6), CancelledError);
}

} // namespace
} // namespace kelm::host
