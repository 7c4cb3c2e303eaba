#pragma once

#include "tests/endtoend/tool_fixture.h"
#include "tests/support/test_store_scope.h"

namespace endtoend {

/// Runs the program in a folder of its own, whose folder "store" is the store `test:`.
class StoreTest : public ToolTest {
protected:
    StoreTest() : m_store(KELM_TEST_STORES, path("store")) {
        std::filesystem::create_directory(path("store/days"));
        writeFile("image", makeImage(kImageBytes, 1));
        writeFile("later", makeImage(kImageBytes, 2));
    }

    /// The names in the folder of the store, and in that below it.
    std::set<std::string> listStore() const {
        std::set<std::string> names;
        for (auto const& entry : std::filesystem::recursive_directory_iterator(path("store")))
            names.insert(entry.path().lexically_relative(path("store")).string());
        return names;
    }

    void expectEqual(std::string const& disk, std::string const& image) const {
        SCOPED_TRACE(disk);
        EXPECT_EQ(runWell({"compare", disk, image}), "equal\n");
        EXPECT_EQ(runWell({"check", disk}), "");
    }

    static constexpr std::size_t kImageBytes = (std::size_t{8} << 20) + 512;

private:
    test_support::TestStoreScope m_store;
};

} // namespace endtoend
