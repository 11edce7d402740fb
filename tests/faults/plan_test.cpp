// Plans as text.
#include "faults/plan.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using faults::Mode;
using faults::Operation;
using faults::Plan;

TEST(FaultPlanTest, ReadsWhatItIsGiven) {
    Plan plan("fail:on=read+remove:result=-7:undone");
    EXPECT_EQ(plan.mode(), Mode::fail);
    EXPECT_EQ(plan.result(), -7);
    EXPECT_TRUE(plan.undone());
    EXPECT_TRUE(plan.strikes(Operation::read));
    EXPECT_TRUE(plan.strikes(Operation::remove));
    EXPECT_FALSE(plan.strikes(Operation::write));
}

TEST(FaultPlanTest, AffectsTheOperationsOfItsMode) {
    EXPECT_TRUE(Plan("hang").strikes(Operation::ping));
    EXPECT_TRUE(Plan("reorder").strikes(Operation::events));
    EXPECT_FALSE(Plan("reorder").strikes(Operation::write));
    EXPECT_TRUE(Plan("echo").strikes(Operation::enlist));
    EXPECT_TRUE(Plan("vanish:path=/n").strikes(Operation::list));
}

TEST(FaultPlanTest, RefusesWhatItDoesNotKnow) {
    for (const char *text :
         {"", "nothing", "hang:on=lunch", "hang:every=0", "hang:every=x", "hang:every=3x",
          "hang:limit=-1", "hang:often", "hang:limit=", "vanish", "hang:path=/n"}) {
        EXPECT_THROW(Plan{text}, std::invalid_argument) << text;
    }
}

} // namespace
