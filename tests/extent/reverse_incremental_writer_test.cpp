#include "kelm/extent/reverse_incremental_writer.h"

#include <type_traits>

#include <gtest/gtest.h>

namespace kelm {

namespace {

using Writer = CVMDKReverseIncrementalWriter;

TEST(ReverseIncrementalWriter, IsCopiedAndDestroyedAndNothingElse) {
    EXPECT_TRUE((std::is_base_of_v<yx::CBase, Writer>));
    EXPECT_TRUE(std::is_copy_constructible_v<Writer>);
    EXPECT_TRUE(std::is_copy_assignable_v<Writer>);
    EXPECT_TRUE(std::has_virtual_destructor_v<Writer>);
    EXPECT_FALSE(std::is_default_constructible_v<Writer>);
}

/// Records its own destruction.
class Sentinel : public yx::CBase {
public:
    explicit Sentinel(bool& gone) : m_gone(gone) {}
    ~Sentinel() override { m_gone = true; }

private:
    bool& m_gone;
};

TEST(ReverseIncrementalWriter, CopiesOfAPostponedGrainShareItsObject) {
    bool gone = false;
    yx::TList<Writer::PostponedGrain> grains;
    {
        Writer::PostponedGrain grain;
        EXPECT_EQ(grain.m_value1, 0);
        EXPECT_EQ(grain.m_value2, 0);
        grain.m_object = yx::makeObject<Sentinel>(gone);
        Writer::PostponedGrain const copy = grain;
        EXPECT_EQ(copy.m_object, grain.m_object);
        grains.pushBack(copy);
    }
    EXPECT_FALSE(gone);
    grains.clear();
    EXPECT_TRUE(gone);
}

} // namespace

} // namespace kelm
