// The watchdog's book-keeping and its reports.
#include <gtest/gtest.h>

#include "service/watchdog.h"

#include "protocol/limits.h"

using namespace tav;
using std::chrono::seconds;

namespace {

class WatchdogTest : public ::testing::Test {
protected:
    // What `action` logs.
    template <typename Action>
    std::string logged(Action action) {
        ::testing::internal::CaptureStderr();
        action();
        return ::testing::internal::GetCapturedStderr();
    }

    api_status_t announce(std::uint64_t session, const std::string &name, int period = 60) {
        return dog.announce(session, 42, WatchdogRequest{name, period, true}, now);
    }
    WatchdogState state(std::size_t index = 0) { return dog.status(now).at(index).state; }

    Watchdog dog;
    Time now = Time(seconds(1000));
};

} // namespace

TEST_F(WatchdogTest, OneThatIsOverdueIsLoggedOnceAndOnceWhenItIsBack) {
    announce(1, "worker");
    EXPECT_EQ(dog.next_check(), now + seconds(60));
    now += seconds(59);
    EXPECT_EQ(logged([this] { dog.check(now); }), "");
    now += seconds(1);
    EXPECT_EQ(logged([this] { dog.check(now); }),
              "tavd: watchdog 'worker' (process 42) is overdue: no ping for 60 s\n");
    EXPECT_EQ(state(), WatchdogState::overdue);
    now += seconds(1000);
    EXPECT_EQ(logged([this] { dog.check(now); }), "");
    EXPECT_FALSE(dog.next_check());
    EXPECT_EQ(logged([this] { dog.ping(1, now); }),
              "tavd: watchdog 'worker' (process 42) pings again\n");
    EXPECT_EQ(logged([this] { dog.ping(1, now); }), "");
    EXPECT_EQ(state(), WatchdogState::fine);
}

TEST_F(WatchdogTest, OneThatIsGoneIsLoggedAndShownUntilItsNameIsBack) {
    announce(1, "worker");
    EXPECT_EQ(logged([this] { dog.depart(1); }),
              "tavd: watchdog 'worker' (process 42) disconnected\n");
    EXPECT_EQ(logged([this] { dog.depart(1); }), "");
    EXPECT_EQ(state(), WatchdogState::gone);
    now += seconds(1000);
    EXPECT_EQ(logged([this] { dog.check(now); }), "");
    EXPECT_EQ(dog.ping(1, now), api_status_absent);
    announce(2, "other");
    EXPECT_EQ(dog.status(now).size(), 2U);
    announce(3, "worker");
    ASSERT_EQ(dog.status(now).size(), 2U);
    EXPECT_EQ(state(0), WatchdogState::fine);
    EXPECT_EQ(state(1), WatchdogState::fine);
}

TEST_F(WatchdogTest, AClientHasOneWatchdogAndMayChangeIt) {
    announce(1, "a");
    announce(1, "b", 5);
    const std::vector<WatchdogStatus> all = dog.status(now);
    ASSERT_EQ(all.size(), 1U);
    EXPECT_EQ(all[0].name, "b");
    EXPECT_EQ(all[0].period, 5);
}

TEST_F(WatchdogTest, BadAnnouncementsAreRefused) {
    EXPECT_EQ(announce(1, ""), api_status_bad_value);
    EXPECT_EQ(announce(1, "a", 0), api_status_bad_value);
    EXPECT_EQ(announce(1, "a", -1), api_status_bad_value);
    EXPECT_EQ(announce(1, std::string(limits::watchdog_name_bytes + 1, 'x')),
              api_status_name_too_long);
    EXPECT_EQ(dog.ping(1, now), api_status_absent);
}

TEST_F(WatchdogTest, TheDepartedAreForgottenBeyondTheirLimitOldestFirst) {
    logged([this] {
        for (std::uint64_t i = 0; i <= limits::departed_watchdogs; ++i) {
            announce(i + 1, "dog" + std::to_string(i));
            dog.depart(i + 1);
        }
    });
    const std::vector<WatchdogStatus> all = dog.status(now);
    ASSERT_EQ(all.size(), limits::departed_watchdogs);
    EXPECT_EQ(all.front().name, "dog1");
}
