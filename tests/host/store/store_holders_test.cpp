#include "host/store/store_holders.h"

#include "tests/support/expect_error.h"
#include "tests/support/holding_store.h"
#include "tests/support/store_fixture.h"

namespace store_holders_test {

namespace {

using kelm::host::findHolders;
using kelm::host::knowsHolders;
using kelm::host::StoreHolder;
using test_support::HoldingStore;
using test_support::TempDirectory;

/// A store `held:` that knows its holders.
class StoreHolders : public testing::Test {
protected:
    void setHolders(std::string const& lines) const {
        std::ofstream(folder.path() / "holders") << lines;
    }

    static yx::CURI uri(std::string const& name) {
        return yx::CURI(yx::String::fromUTF8("held:/" + name));
    }

    TempDirectory folder;
    kelm::host::AddedStore added{
        "held", yx::makeObject<HoldingStore>(folder.path().string(), folder.path() / "holders")};
};

using StoreWithoutHolders = test_support::StoreTest;

TEST_F(StoreHolders, AreThoseOfTheFilesThatAreAskedFor) {
    setHolders("7 far user 0 unknown a.vmdk write\n"
               "7 far user 0 unknown a.vmdk.lock open changes\n"
               "8 near user 0 lives b.vmdk open\n");
    EXPECT_TRUE(knowsHolders(uri("a.vmdk")));
    std::vector<StoreHolder> const holders = findHolders({uri("a.vmdk"), uri("a.vmdk.lock")});
    ASSERT_EQ(holders.size(), 1U);
    EXPECT_EQ(holders[0].number, "7");
    EXPECT_EQ(holders[0].host, "far");
    EXPECT_EQ(holders[0].life, StoreHolder::Life::Unknown);
    ASSERT_EQ(holders[0].files.size(), 2U);
    EXPECT_TRUE(holders[0].files[0].isOpenForWriting);
    EXPECT_FALSE(holders[0].files[1].isOpenForWriting);
    EXPECT_TRUE(holders[0].files[1].mayHaveChanges);
    EXPECT_EQ(findHolders({}).size(), 0U);
    kelm::host::shutOutHolder(uri("a.vmdk"), "7");
    EXPECT_EQ(findHolders({uri("a.vmdk")}).size(), 0U);
    EXPECT_EQ(findHolders({uri("b.vmdk")}).size(), 1U);
}

TEST_F(StoreHolders, ErrorsAreThoseOfTheStore) {
    setHolders("denied\n");
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::AccessDenied, "Ask somebody else.",
                                            {{"uri", "held:/a.vmdk"}},
                                            [] { findHolders({uri("a.vmdk")}); }));
}

TEST_F(StoreWithoutHolders, HasNobodyAndShutsNobodyOut) {
    for (char const* const name : {"test:/a.vmdk", "file:///a.vmdk", "nowhere:/a.vmdk"}) {
        SCOPED_TRACE(name);
        yx::CURI const file(name);
        EXPECT_FALSE(knowsHolders(file));
        EXPECT_EQ(findHolders({file}).size(), 0U);
        EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::NotSupported,
                                                "The store shuts nobody out.", {{"uri", name}},
                                                [&] { kelm::host::shutOutHolder(file, "7"); }));
    }
}

} // namespace

} // namespace store_holders_test
