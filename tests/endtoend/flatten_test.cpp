// A flatten that is killed, and done again.

#include <random>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace flatten_test {

namespace {

constexpr std::size_t kImageBytes = std::size_t{16} << 20;

struct Kind {
    char const* name;
    Arguments parentOptions;
    Arguments childOptions;
};

std::vector<Kind> const kKinds{{"Plain", {}, {}},
                               {"Compressed", {"--compressed"}, {}},
                               {"Split", {}, {"--split", "8M"}},
                               {"OnDemand", {}, {"--split", "8M", "--on-demand"}},
                               {"CompressedSplit", {"--compressed"}, {"--split", "16M"}}};

class KilledFlatten : public ToolTest, public ::testing::WithParamInterface<Kind> {
protected:
    KilledFlatten() {
        writeFile("image", makeImage(kImageBytes, 61));
        runWell(joined({{"import", "image", "parent.vmdk"}, GetParam().parentOptions}));
    }

    void makeChild() const {
        runWell(
            joined({{"child", "parent.vmdk", "child.vmdk", "--force"}, GetParam().childOptions}));
    }

    std::uintmax_t childBytes() const {
        std::uintmax_t bytes = 0;
        for (std::string const& name : listFiles()) {
            std::error_code ignored;
            std::uintmax_t const size = std::filesystem::file_size(path(name), ignored);
            if (name.starts_with("child") && name.ends_with(".vmdk") && !ignored)
                bytes += size;
        }
        return bytes;
    }

    __int64 deadBytes() const {
        return nlohmann::json::parse(
            runWell({"info", "child.vmdk", "--space", "--json"}))["space"]["deadBytes"];
    }

    std::mt19937 m_random{20261122};
};

TEST_P(KilledFlatten, IsRepeatedWithoutDeadSpaceOrFindings) {
    makeChild();
    auto const operations = static_cast<unsigned int>(countOperations({"flatten", "child.vmdk"}));
    std::uintmax_t const wholeBytes = childBytes();
    __int64 const wholeDeadBytes = deadBytes();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        makeChild();
        for (int attempt = 0; attempt < 3; ++attempt) {
            bool const isKilled = runAndKillBehind(1 + static_cast<int>(m_random() % operations),
                                                   {"flatten", "child.vmdk"});
            EXPECT_TRUE(isKilled || attempt > 0);
        }
        // As good as before: a child still, or done.
        EXPECT_EQ(run({"compare", "image", "child.vmdk"}).out, "equal\n");
        Outcome const outcome = run({"flatten", "child.vmdk"});
        if (outcome.status != 0) {
            EXPECT_EQ(outcome.err, "kelm: The disk has no parent: child.vmdk\n");
        }
        EXPECT_EQ(runWell({"compare", "image", "child.vmdk"}), "equal\n");
        EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
        EXPECT_EQ(deadBytes(), wholeDeadBytes);
        EXPECT_EQ(childBytes(), wholeBytes);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, KilledFlatten, ::testing::ValuesIn(kKinds),
                         [](auto const& kind) { return std::string(kind.param.name); });

} // namespace

} // namespace flatten_test

} // namespace endtoend
