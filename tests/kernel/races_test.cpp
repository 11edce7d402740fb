// A user's edits while the daemon is still handling the previous one.

#include <iostream>
#include <thread>

#include "harness/world.h"

namespace {

class RaceTest : public kt::KeptStoreTest {
protected:
    explicit RaceTest(int how_many_rounds = 100) : rounds(how_many_rounds) {}

    void SetUp() override {
        add_eth(0);
        service.start();
        store.set_address(1, "1", "2001:db8::5/64");
        store.set_gateway(1, "fe80::1");
        start_daemon_and_wait({"-d", "-D", "3"}, options);
        // Node 2: the kernel reports it only when its duplicate detection is over.
        ASSERT_TRUE(becomes([&] {
            const std::string own = device.link_local("eth0");
            return !own.empty() && store.node_of(1, own) == "2";
        }));
    }

    static void one_millisecond() { std::this_thread::sleep_for(std::chrono::milliseconds(1)); }

    // Quiet: neither side has anything left to report to the daemon, and the daemon has handled
    // everything.
    bool quiet() {
        const bool quiet = settle() && settle();
        // A slowed daemon does not return to its wait at once.
        std::this_thread::sleep_for(rest);
        return quiet;
    }

    void report(int lost) {
        std::cout << rounds << " rounds, lost: " << lost
                  << ", writes refused as out of date: " << log().count_containing("': 8") << "\n";
        EXPECT_EQ(lost, 0);
    }

    bool has_only(const std::string &address) {
        std::size_t in_store = 0;
        for (const auto &stored : store.addresses(1)) {
            in_store += stored.address.compare(0, 12, "2001:db8::5/") == 0 ? 1U : 0U;
        }
        std::size_t in_kernel = 0;
        for (const auto &one : device.addresses("eth0")) {
            in_kernel += one.text.compare(0, 12, "2001:db8::5/") == 0 ? 1U : 0U;
        }
        return in_store == 1 && in_kernel == 1 && store.has_address(1, address, "Static") &&
               store.node_of(1, address) == "1" && device.has_address("eth0", address);
    }

    void correct_the_prefix_length_there_and_back() {
        const std::string leaf = kt::paths::address_value(1, "1");
        int lost = 0;
        for (int i = 0; i < rounds; ++i) {
            store.write(leaf, "2001:db8::5/48");
            one_millisecond();
            store.write(leaf, "2001:db8::5/64");
            ASSERT_TRUE(quiet());
            if (!becomes([&] { return has_only("2001:db8::5/64"); })) {
                ++lost;
                store.set_address(1, "1", "2001:db8::5/64");
                ASSERT_TRUE(quiet());
            }
        }
        report(lost);
    }

    const int rounds;
    std::chrono::milliseconds rest{0};
    kt::spawn_options_t options;
};

TEST_F(RaceTest, AStaticAddressRemovedAndAddedAgainStaysStatic) {
    int lost = 0;
    for (int i = 0; i < rounds; ++i) {
        store.remove_address(1, "1");
        one_millisecond();
        store.set_address(1, "1", "2001:db8::5/64");
        ASSERT_TRUE(quiet());
        if (!becomes([&] { return has_only("2001:db8::5/64"); })) {
            ++lost;
            store.set_address(1, "1", "2001:db8::5/64");
            ASSERT_TRUE(quiet());
        }
    }
    report(lost);
}

TEST_F(RaceTest, APrefixLengthCorrectedTwiceInARowEndsAsTheUserSaid) {
    const std::string leaf = kt::paths::address_value(1, "1");
    int lost = 0;
    for (int i = 0; i < rounds; ++i) {
        const std::string last = i % 2 == 0 ? "2001:db8::5/48" : "2001:db8::5/64";
        store.write(leaf, "2001:db8::5/56");
        one_millisecond();
        store.write(leaf, last);
        ASSERT_TRUE(quiet());
        if (!becomes([&] { return has_only(last); })) {
            ++lost;
            store.set_address(1, "1", last);
            ASSERT_TRUE(quiet());
        }
    }
    report(lost);
}

TEST_F(RaceTest, APrefixLengthCorrectedThereAndBackEndsAsTheUserSaid) {
    correct_the_prefix_length_there_and_back();
}

// Unless the daemon is so late that the next synchronisation begins before it has read the kernel's
// report: the gateway is then restored, as tandrel(8) says. Such rounds show nothing.
TEST_F(RaceTest, AGatewayRemovedJustBeforeAnotherEditStaysAway) {
    int lost = 0;
    int late = 0;
    for (int i = 0; i < rounds; ++i) {
        const std::size_t from = log().size();
        const std::string other = "2001:db8::" + std::to_string(100 + i) + "/64";
        store.remove_gateway(1);
        one_millisecond();
        store.set_address(1, "other", other);
        ASSERT_TRUE(quiet());
        const long removed = log().find("Info: Removing existing static route", from);
        ASSERT_GE(removed, 0);
        const auto after = static_cast<std::size_t>(removed);
        const long reported = log().find_containing(" ::/0 : gw = fe80::1 (4)", after);
        const long next = log().find_containing("Info: Synchronizing kernel interface", after);
        const bool in_time = reported >= 0 && (next < 0 || reported < next);
        late += in_time ? 0 : 1;
        const auto right = [&] {
            return !store.gateway(1) && device.static_gateways("eth0").empty() &&
                   both_have(1, other);
        };
        lost += in_time && !becomes(right) ? 1 : 0;
        store.set_gateway(1, "fe80::1");
        ASSERT_TRUE(quiet());
        ASSERT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::1"});
        ASSERT_EQ(store.gateway(1), "fe80::1");
    }
    EXPECT_LT(late, rounds / 2) << "too slow to show anything";
    report(lost);
}

// The daemon gives a new address of the kernel the name of the node that the user is just adding:
// the store refuses the daemon's write, because the daemon has not yet fetched the event of the
// user's.
TEST_F(RaceTest, ANodeThatTheUserIsJustAddingIsNotOverwritten) {
    int lost = 0;
    for (int i = 0; i < rounds; ++i) {
        const std::string users = "2001:db8:1::" + std::to_string(i + 1) + "/64";
        const std::string kernels = "2001:db8:2::" + std::to_string(i + 1) + "/64";
        // Something that makes the daemon write, so that it gets the event of the edit a little
        // later.
        device.add_address("eth0", "2001:db8:3::1/64");
        ASSERT_TRUE(becomes([&] { return store.node_of(1, "2001:db8:3::1/64") == "3"; }));
        store.set_address(1, "4", users);
        device.add_address("eth0", kernels);
        ASSERT_TRUE(quiet());
        const bool right = becomes([&] {
            return store.node_of(1, users) == "4" && both_have(1, users) &&
                   store.has_address(1, users, "Static") && both_have(1, kernels) &&
                   store.has_address(1, kernels, "Automatic");
        });
        lost += right ? 0 : 1;
        store.remove_address(1, "4");
        device.delete_address("eth0", kernels);
        device.delete_address("eth0", "2001:db8:3::1/64");
        ASSERT_TRUE(quiet());
        ASSERT_EQ(store.addresses(1).size(), 2U);
    }
    report(lost);
    EXPECT_GT(log().count("Info: Error when writing '" + kt::paths::address_value(1, "4") + "': 8"),
              0U)
        << "the edit never came between, so nothing was shown";
}

// A machine on which every cycle of the daemon is slow, so that handling the kernel's notifications
// of one synchronisation takes longer than the pause between two wake-ups.
class SlowRaceTest : public RaceTest {
protected:
    SlowRaceTest() : RaceTest(20) {
        rest = std::chrono::milliseconds(100);
        options = kt::preloaded({{"KT_SELECT_DELAY", "20"}});
    }
};

TEST_F(SlowRaceTest, APrefixLengthCorrectedThereAndBackEndsAsTheUserSaid) {
    correct_the_prefix_length_there_and_back();
}

// The same without a pause between the rounds; the last edit must win.
TEST_F(RaceTest, TheLastOfManyEditsWins) {
    for (int i = 0; i < rounds; ++i) {
        store.remove_address(1, "1");
        one_millisecond();
        store.set_address(1, "1", i % 2 == 0 ? "2001:db8::5/48" : "2001:db8::5/64");
        one_millisecond();
        if (i % 2 == 0) {
            store.remove_gateway(1);
        } else {
            // A different one each time: setting the same value again may be lost.
            store.set_gateway(1, "fe80::" + std::to_string(100 + i));
        }
        one_millisecond();
    }
    ASSERT_TRUE(quiet());
    EXPECT_TRUE(has_only("2001:db8::5/64"));
    if (log().count("Info: Replaced exising static route with a new one - removing old route") !=
        0) {
        // On a busy machine a gateway changed twice at once is lost; it must be set again.
        store.set_gateway(1, "fe80::199");
        ASSERT_TRUE(quiet());
    }
    EXPECT_EQ(store.gateway(1), "fe80::199");
    EXPECT_EQ(device.static_gateways("eth0"), std::vector<std::string>{"fe80::199"});
}

// The kernel's own changes among the user's.
TEST_F(RaceTest, AutomaticAddressesAmongTheEditsKeepTheirNodes) {
    kt::Router router(sandbox, "peer0");
    router.start({"2001:db8:1::"});
    const std::string automatic =
        kt::automatic_address("2001:db8:1::", device.hardware_address("eth0"));
    ASSERT_TRUE(becomes([&] { return store.has_address(1, automatic, "Automatic"); }));
    const std::string node = store.node_of(1, automatic);
    for (int i = 0; i < rounds; ++i) {
        store.set_address(1, "edit", "2001:db8::" + std::to_string(100 + i) + "/64");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(quiet());
    EXPECT_EQ(store.node_of(1, automatic), node);
    EXPECT_TRUE(has_only("2001:db8::5/64"));
    EXPECT_TRUE(both_have(1, "2001:db8::199/64"));
    std::size_t globals = 0;
    for (const auto &one : device.addresses("eth0")) {
        globals += one.scope == 0 ? 1U : 0U;
    }
    EXPECT_EQ(globals, 3U);
}

} // namespace
