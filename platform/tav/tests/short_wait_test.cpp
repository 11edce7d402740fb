// Polling before sleeping.
#include <gtest/gtest.h>

#include <sched.h>
#include <unistd.h>

#include <cstdlib>

#include "client/short_wait.h"

namespace {

int usable_processors() {
    cpu_set_t usable;
    return ::sched_getaffinity(0, sizeof usable, &usable) == 0 ? CPU_COUNT(&usable) : 0;
}

bool stay_on_this_processor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<unsigned>(::sched_getcpu()), &one);
    return ::sched_setaffinity(0, sizeof one, &one) == 0;
}

} // namespace

TEST(ShortWaitTest, PollsWithMoreThanOneProcessor) {
    tav::ShortWait wait;
    EXPECT_EQ(wait.goes_on(), usable_processors() > 1);
}

// In a separate process: the number of processors is determined once per process.
TEST(ShortWaitTest, DoesNotPollOnTheOnlyProcessor) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const bool stays = stay_on_this_processor();
            std::_Exit(stays && !tav::ShortWait().goes_on() ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(ShortWaitTest, StopsPollingSoon) {
    tav::ShortWait wait;
    int looks = 0;
    while (wait.goes_on()) {
        ASSERT_LT(++looks, 100000);
    }
}

TEST(ShortWaitTest, SleepsAfterAnotherProcessRan) {
    tav::ShortWait wait;
    wait.goes_on();
    ::usleep(1000);
    EXPECT_FALSE(wait.goes_on());
}
