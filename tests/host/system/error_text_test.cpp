#include "host/system/error_text.h"

#include <new>
#include <stdexcept>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace kelm::host {

namespace {

TEST(ErrorText, HasTheMessageAndThePropertiesInTheirOrder) {
    EXPECT_EQ(describeError(yx::CError("Words.", "detail", 5, yx::CProps(), nullptr)), "Words.");
    EXPECT_EQ(
        describeError(yx::CIOError(yx::CIOError::NotFound, "No such file.",
                                   yx::CProps().add("b", "1").add("a", "two words"), nullptr)),
        "No such file. (b: 1, a: two words)");
}

TEST(ErrorText, ShowsFilesByTheirPaths) {
    yx::CProps const props = yx::CProps()
                                 .add("uri", "file:///tmp/a%20b.vmdk")
                                 .add("other", "mem:///disks/a%20b.vmdk")
                                 .add("bad", "file:///%");
    EXPECT_EQ(describeError(yx::CError("Words.", "", -1, props, nullptr)),
              "Words. (uri: /tmp/a b.vmdk, other: mem:///disks/a%20b.vmdk, bad: file:///%)");
}

TEST(ErrorText, IsOneLineThatIsSafeToPrint) {
    EXPECT_EQ(describeError(yx::CError("one\ntwo\r\nthree", "", -1, yx::CProps(), nullptr)),
              "one\\ntwo\\r\\nthree");
}

TEST(ErrorText, ExplainsWhatFileServersDo) {
    yx::CProps const props = yx::CProps().add("uri", "file:///tmp/a.vmdk");
    yx::CIOError const stale(yx::CIOError::IOFailure,
                             "Cannot read from the file: Stale file handle", props, nullptr);
    std::string const meaning =
        " The server of the file does not know it any more: it was removed or replaced on another "
        "machine, or the server has lost it. Open the disk anew.";
    EXPECT_EQ(describeError(stale),
              "Cannot read from the file: Stale file handle (uri: /tmp/a.vmdk)" + meaning);
    EXPECT_EQ(describeError(yx::CError("The grain cannot be read.", "", -1, yx::CProps(), &stale)),
              "The grain cannot be read." + meaning);
    EXPECT_EQ(
        describeError(yx::CIOError(yx::CIOError::IOFailure,
                                   "Cannot lock the file: No locks available", props, nullptr)),
        "Cannot lock the file: No locks available (uri: /tmp/a.vmdk) The server of the file, "
        "or this machine, gives no locks now.");
}

TEST(ErrorText, IsInPlainWordsForMemory) {
    EXPECT_EQ(describeError(std::bad_alloc()), "There is not enough memory.");
    EXPECT_EQ(describeError(std::runtime_error("other words")), "other words");
}

} // namespace

} // namespace kelm::host
