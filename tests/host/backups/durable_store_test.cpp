#include <sys/stat.h>

#include "host/backups/durable_files.h"
#include "host/backups/stream_copy.h"
#include "tests/support/expect_error.h"
#include "tests/support/store_fixture.h"

namespace {

using kelm::host::DurableFiles;
using test_support::throwsIOError;

class DurableStoreTest : public test_support::StoreTest {
protected:
    static std::vector<unsigned char> bytesOf(std::string const& text) {
        return {text.begin(), text.end()};
    }

    mode_t modeOf(std::string const& name) const {
        struct stat status = {};
        EXPECT_EQ(::stat((folder.path() / name).c_str(), &status), 0);
        constexpr mode_t kRights = 07777;
        return status.st_mode & kRights;
    }

    DurableFiles steps;
};

TEST_F(DurableStoreTest, GivesAFileASecondNameWhereItCan) {
    put("a", "x");
    EXPECT_TRUE(steps.tryLink(uri("a"), uri("b")));
    EXPECT_EQ(contentOf("b"), "x");
    EXPECT_FALSE(steps.tryLink(uri("a"), folder.uri("c")));
    store->setLinks(false);
    EXPECT_FALSE(steps.tryLink(uri("a"), uri("c")));
    EXPECT_FALSE(isThere("c"));
}

TEST_F(DurableStoreTest, CopiesBetweenStoresWithHolesAndWithinOneWithRights) {
    // Data, a hole, and data again.
    constexpr __int64 kFarBytes = 8'000'000;
    std::string text(3'000'000, 'd');
    put("a", text);
    std::filesystem::permissions(folder.path() / "a", std::filesystem::perms(0640));
    {
        yx::P<yx::IIOStream> const stream = open("a");
        stream->seek(kFarBytes);
        stream->write("end", 3, nullptr);
    }
    test_support::TempDirectory const other;
    steps.copy(uri("a"), uri("b"), nullptr);
    steps.copy(uri("a"), other.uri("c"), nullptr);
    steps.copy(other.uri("c"), uri("d"), nullptr);
    std::string const content = contentOf("a");
    ASSERT_EQ(content.size(), static_cast<std::size_t>(kFarBytes) + 3);
    EXPECT_EQ(contentOf("b"), content);
    EXPECT_EQ(contentOf("d"), content);
    EXPECT_EQ(modeOf("b"), 0640U);
    for (char const* const name : {"b", "d"})
        EXPECT_LT(kelm::host::storeOf(uri(name)).findStatus(uri(name), true)->allocatedBytes,
                  kFarBytes / 2)
            << name;
    EXPECT_TRUE(DurableFiles::areAlike(uri("a"), other.uri("c"), nullptr));
    put("b", "other");
    EXPECT_FALSE(DurableFiles::areAlike(uri("a"), uri("b"), nullptr));
    EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                              {{"uri", "test:/b"}},
                              [&] { steps.copy(uri("a"), uri("b"), nullptr); }));
    EXPECT_EQ(contentOf("b"), "other");
    EXPECT_FALSE(isThere("b.kelm-part"));
}

TEST_F(DurableStoreTest, ACopyThatIsInterruptedLeavesNothing) {
    put("a", "content");
    put("b.kelm-part", "of a program that was killed");
    kelm::host::CancelFlag cancel;
    cancel.set();
    EXPECT_THROW(steps.copy(uri("a"), uri("b"), &cancel), kelm::host::CancelledError);
    EXPECT_FALSE(isThere("b"));
    EXPECT_FALSE(isThere("b.kelm-part"));
}

TEST_F(DurableStoreTest, MakesReplacesPatchesAndRemovesFiles) {
    put("like", "x");
    std::filesystem::permissions(folder.path() / "like", std::filesystem::perms(0604));
    steps.make(uri("a"), bytesOf("first"), uri("like"));
    EXPECT_EQ(contentOf("a"), "first");
    EXPECT_EQ(modeOf("a"), 0604U);
    EXPECT_THROW(steps.make(uri("a"), bytesOf("second"), uri("like")), yx::CIOError);
    steps.replace(uri("a"), bytesOf("second"));
    EXPECT_EQ(contentOf("a"), "second");
    EXPECT_EQ(modeOf("a"), 0604U);
    steps.patch(uri("a"), 2, bytesOf("XY"));
    EXPECT_EQ(contentOf("a"), "seXYnd");
    EXPECT_THROW(steps.patch(uri("none"), 0, bytesOf("x")), yx::CIOError);
    EXPECT_FALSE(isThere("none"));
    steps.remake(uri("a"), [&](yx::CURI const& unfinished) {
        EXPECT_EQ(unfinished, uri("a.kelm-part"));
        EXPECT_EQ(contentOf("a"), "seXYnd");
        put("a.kelm-part", "remade");
    });
    EXPECT_EQ(contentOf("a"), "remade");
    EXPECT_THROW(steps.remake(uri("a"), [](yx::CURI const&) { throw std::bad_alloc(); }),
                 std::bad_alloc);
    EXPECT_EQ(contentOf("a"), "remade");
    EXPECT_FALSE(isThere("a.kelm-part"));
    put("a.kelm-part", "left");
    steps.remove(uri("a"));
    EXPECT_FALSE(isThere("a"));
    EXPECT_FALSE(isThere("a.kelm-part"));
    steps.remove(uri("a"));
}

} // namespace
