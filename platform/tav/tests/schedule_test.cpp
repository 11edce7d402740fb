// Who is served next.
#include <gtest/gtest.h>

#include "service/schedule.h"

using tav::Schedule;
using Kind = tav::Schedule::Kind;
using std::chrono::microseconds;
using std::chrono::milliseconds;

namespace {

constexpr uid_t user = 1000;
constexpr uid_t other_user = 1001;
constexpr Schedule::Id good = 1;
constexpr Schedule::Id first_of_many = 100;
constexpr int many = 100;

class ScheduleTest : public ::testing::Test {
protected:
    void add_many(Kind kind) {
        for (Schedule::Id id = first_of_many; id < first_of_many + many; ++id) {
            schedule.add(user, id, kind);
        }
    }
    // The turns of all others before that of `wanted`, each of which takes so long.
    int turns_before(Schedule::Id wanted, uid_t of, Kind kind, microseconds each) {
        int turns = 0;
        for (; schedule.next() != wanted && turns < 1000000; ++turns) {
            schedule.charge(of, schedule.next(), kind, each);
        }
        return turns;
    }

    Schedule schedule;
};

} // namespace

TEST_F(ScheduleTest, AShortRequestWaitsForOneTurnOfAllLongOnes) {
    add_many(Kind::lengthy);
    for (int i = 0; i < 1000; ++i) {
        schedule.charge(user, schedule.next(), Kind::lengthy, milliseconds(2));
    }
    for (int i = 0; i < 1000; ++i) {
        schedule.add(user, good, Kind::brief);
        EXPECT_LE(turns_before(good, user, Kind::lengthy, milliseconds(2)), 1);
        schedule.charge(user, good, Kind::brief, microseconds(20));
        schedule.remove(user, good);
    }
}

TEST_F(ScheduleTest, LongRequestsGetHalfOfTheTimeBesideShortOnes) {
    add_many(Kind::brief);
    schedule.add(user, good, Kind::lengthy);
    milliseconds got{};
    for (int i = 0; i < 10000; ++i) {
        const bool found = schedule.next() == good;
        got += milliseconds(found ? 1 : 0);
        schedule.charge(user, schedule.next(), found ? Kind::lengthy : Kind::brief,
                        milliseconds(1));
    }
    EXPECT_NEAR(static_cast<double>(got.count()), 5000, 5);
}

// Once such a turn of 20 ms made a client wait until each of 100 others had used 20 ms, too.
TEST_F(ScheduleTest, AnOverlongTurnIsNotHeldAgainstOneOfManyConnections) {
    for (const Kind kind : {Kind::brief, Kind::lengthy}) {
        add_many(kind);
        schedule.add(user, good, kind);
        const Schedule::Duration turn = Schedule::longest_turn(kind);
        turns_before(good, user, kind, microseconds(1));
        schedule.charge(user, good, kind, 100 * turn);
        EXPECT_LE(turns_before(good, user, kind, std::chrono::duration_cast<microseconds>(turn)),
                  2 * many);
    }
}

TEST_F(ScheduleTest, AnOverlongTurnIsChargedToTheUser) {
    schedule.add(user, good, Kind::brief);
    schedule.add(other_user, 2, Kind::brief);
    schedule.charge(user, good, Kind::brief, milliseconds(100));
    EXPECT_GE(turns_before(good, other_user, Kind::brief, milliseconds(1)), 99);
}

TEST_F(ScheduleTest, NobodySavesTimeUp) {
    schedule.add(user, good, Kind::brief);
    schedule.charge(user, good, Kind::brief, milliseconds(1));
    schedule.add(other_user, 2, Kind::lengthy);
    for (int i = 0; i < 100; ++i) {
        schedule.charge(user, good, Kind::brief, milliseconds(1));
        schedule.remove(other_user, 2);
        schedule.charge(user, good, Kind::brief, milliseconds(1));
        schedule.add(other_user, 2, Kind::lengthy);
    }
    EXPECT_LE(turns_before(good, other_user, Kind::lengthy, milliseconds(1)), 5);
}

TEST_F(ScheduleTest, ARequestIsInOneLineOnly) {
    schedule.add(user, good, Kind::brief);
    schedule.add(user, good, Kind::lengthy);
    schedule.add(user, good, Kind::brief);
    EXPECT_EQ(schedule.next(), good);
    schedule.remove(user, good);
    EXPECT_TRUE(schedule.empty());
    schedule.add(user, good, Kind::lengthy);
    schedule.forget(user, good);
    EXPECT_TRUE(schedule.empty());
    schedule.charge(user, good, Kind::lengthy, milliseconds(1)); // it is gone
    EXPECT_TRUE(schedule.empty());
}
