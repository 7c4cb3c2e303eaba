#include "host/transfer/compare.h"

#include <optional>

#include "host/transfer/disk_content_reader.h"
#include "host/transfer/raw_content_reader.h"
#include "tests/host/host_fixture.h"

namespace test_support {
namespace {

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::Comparison;
using kelm::host::DiskContentReader;
using kelm::host::RawContentReader;
using kelm::host::RawSource;
using kelm::host::WorkOptions;

class Compare : public HostTest {
protected:
    Comparison compare(Bytes const& left, Bytes const& right) {
        RawSource leftSource(putImage("left.raw", left));
        RawSource rightSource(putImage("right.raw", right));
        RawContentReader leftReader(leftSource);
        RawContentReader rightReader(rightSource);
        return compareContent(leftReader, rightReader, options);
    }

    WorkOptions options;
};

TEST_F(Compare, FindsEveryByteThatDiffers) {
    struct Case {
        char const* name;
        std::vector<std::size_t> changed;
        std::optional<__int64> first;
    };
    for (Case const& c : {
             Case{"nothing", {}, std::nullopt},
             Case{"first", {0}, 0},
             Case{"in a hole", {3 * 65536 + 7}, 3 * 65536 + 7},
             Case{"across grains", {65535, 65536, 1199999}, 65535},
         }) {
        SCOPED_TRACE(c.name);
        Bytes right = mixedContent();
        for (std::size_t const at : c.changed)
            right[at] ^= 0x40;
        Comparison const result = compare(mixedContent(), right);
        EXPECT_EQ(c.first, result.firstDifferenceBytes);
        EXPECT_EQ(static_cast<__int64>(c.changed.size()), result.differingBytes);
        EXPECT_EQ(c.changed.empty(), result.isEqual());
        EXPECT_EQ(1200000, result.leftBytes);
        EXPECT_EQ(1200000, result.rightBytes);
    }
}

TEST_F(Compare, ZerosBehindTheEndOfTheOtherSideDoNotCount) {
    Bytes const content = mixedContent();
    EXPECT_TRUE(compare(content, padded(content, 3000000)).isEqual());
    EXPECT_TRUE(compare(padded(content, 1200001), content).isEqual());
    Bytes longer = padded(content, 3000000);
    longer[2500000] = 1;
    Comparison const result = compare(content, longer);
    EXPECT_EQ(std::optional<__int64>(2500000), result.firstDifferenceBytes);
    EXPECT_EQ(1, result.differingBytes);
    EXPECT_EQ(3000000, result.rightBytes);
    EXPECT_TRUE(compare({}, {}).isEqual());
}

TEST_F(Compare, DisksAndImagesCompareByContent) {
    Bytes const content = mixedContent();
    writeTo(*createSafe({"", true}, "a.vmdk"), 0, content);
    writeTo(*createSafe({"", false, kSplitLimit, "pw", true}, "b.vmdk"), 0, content);
    std::unique_ptr<SafeDisk> const a = openSafe("a.vmdk", kReadOnly);
    std::unique_ptr<SafeDisk> const b = openSafe("b.vmdk", kReadWrite, "pw");
    {
        DiskContentReader left(*a);
        DiskContentReader right(*b);
        EXPECT_TRUE(compareContent(left, right, options).isEqual());
    }
    writeTo(*b, 8000000, Bytes{1});
    DiskContentReader left(*a);
    DiskContentReader right(*b);
    EXPECT_EQ(std::optional<__int64>(8000000),
              compareContent(left, right, options).firstDifferenceBytes);
    RawSource source(putImage("image.raw", content));
    RawContentReader image(source);
    DiskContentReader disk(*a);
    EXPECT_TRUE(compareContent(image, disk, options).isEqual());
}

TEST_F(Compare, ReportsProgressAndCanBeCancelled) {
    std::vector<std::pair<__int64, __int64>> reports;
    options.progress = [&](__int64 done, __int64 total) { reports.emplace_back(done, total); };
    compare(mixedContent(), mixedContent());
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ((std::pair<__int64, __int64>(1200000, 1200000)), reports.back());
    CancelFlag cancel;
    cancel.set();
    options.cancel = &cancel;
    EXPECT_THROW(compare(mixedContent(), mixedContent()), CancelledError);
}

} // namespace
} // namespace test_support
