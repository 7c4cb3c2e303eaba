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

TEST(ErrorText, IsInPlainWordsForMemory) {
    EXPECT_EQ(describeError(std::bad_alloc()), "There is not enough memory.");
    EXPECT_EQ(describeError(std::runtime_error("other words")), "other words");
}

} // namespace

} // namespace kelm::host
