// From the start to normal operation, on the running kernel.

#include <atomic>
#include <iostream>
#include <thread>

#include <linux/rtnetlink.h>

#include "harness/world.h"

namespace {

class DiscoveryTest : public kt::KernelTest {};

TEST_F(DiscoveryTest, LinksAddressesAndRoutesAreRequestedInTurnAndTheEndIsNoticed) {
    add_eth(0);
    service.start();
    start_daemon_and_wait();
    long last = -1;
    for (const std::string what : {"requesting link state", "requesting addrs", "requesting routes",
                                   "beginning normal operation"}) {
        const std::string line = "Info: void CSync::discover(): " + what;
        const long at = log().find(line);
        EXPECT_GT(at, last) << line;
        EXPECT_EQ(log().count(line), 1U) << line;
        last = at;
    }
    EXPECT_EQ(log().count_containing("Got NLMSG_DONE outside"), 0U);
    EXPECT_EQ(log().count_containing("dump was interrupted"), 0U);
}

TEST_F(DiscoveryTest, LinksWithThePrefixAreTrackedAndOthersSkipped) {
    add_eth(0);
    add_eth(3);
    add_eth(1, "wlan");
    service.start();
    start_daemon_and_wait();
    for (const std::string link : {"eth0", "eth3"}) {
        EXPECT_TRUE(logged("Info: Adding new link: '" + link + "' (" + index_of(link) + ")"));
        EXPECT_TRUE(logged("Info: ADDING link [" + index_of(link) + "]: " + link + " : " +
                           device.hardware_address(link)));
    }
    EXPECT_TRUE(logged("Info: Skipping update for link 'wlan1'"));
    EXPECT_TRUE(logged("Info: Ignoring unknown interface type 772"));
    EXPECT_EQ(log().count_containing("Adding new link: 'wlan1'"), 0U);
    EXPECT_EQ(log().count_containing("'lo'"), 0U);
}

TEST_F(DiscoveryTest, AnotherPrefixSelectsOtherLinks) {
    add_eth(0);
    add_eth(1, "wlan");
    service.start();
    store.set_address(2, "1", "2001:db8::5/64");
    start_daemon_and_wait({"-d", "-D", "4", "-i", "wlan"});
    EXPECT_TRUE(logged("Info: Adding new link: 'wlan1' (" + index_of("wlan1") + ")"));
    EXPECT_TRUE(logged("Info: Skipping update for link 'eth0'"));
    EXPECT_TRUE(becomes([&] { return device.has_address("wlan1", "2001:db8::5/64"); }));
    EXPECT_FALSE(device.has_address("eth0", "2001:db8::5/64"));
}

// The answer to the address request then takes several datagrams, and its end comes with the last.
TEST_F(DiscoveryTest, ADumpOfManyDatagramsIsReadToItsEnd) {
    add_eth(0);
    service.start();
    store.make_interface(1);
    constexpr int count = 500;
    for (int i = 1; i <= count; ++i) {
        device.add_address("eth0", "2001:db8:0:" + std::to_string(i) + "::1/64");
    }
    start_daemon_and_wait();
    EXPECT_GT(log().count("Info: Received netlink update (type 20)"), 1U);
    EXPECT_EQ(log().count("Info: void CSync::discover(): requesting routes"), 1U);
    EXPECT_TRUE(becomes([&] { return store.addresses(1).size() >= count; }));
}

// A router's table at -D 2, where each route is a line, and a slow system log. For the daemon time
// passes twenty times as fast, so that its thirty seconds are one and a half. It once gave up after
// them, regardless of its progress, and started again for ever. The log alone takes two seconds.
TEST_F(DiscoveryTest, ALargeTableWithASlowLogIsReadToItsEnd) {
    add_eth(0);
    service.start();
    store.set_address(1, "1", "2001:db8::1/64");
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    constexpr int count = 100000;
    for (int i = 0; i < count; ++i) {
        kt::kernel_route_t route;
        route.destination =
            "2001:db8:" + std::to_string(1 + i / 10000) + ":" + std::to_string(i % 10000) + "::/64";
        route.link = "eth0";
        device.add_route(route);
    }
    start_daemon({"-d", "-D", "2"}, kt::preloaded({{"KT_CLOCK_RATE", "20"},
                                                   {"KT_SYSLOG_DELAY", "20"},
                                                   {"TAV_TIMEOUT_MS", "100000"}})); // five seconds
    EXPECT_TRUE(kt::eventually([&] { return device.has_address("eth0", "2001:db8::1/64"); },
                               std::chrono::minutes(5)));
    EXPECT_GE(log().count_containing("Info: ADDING route ["), std::size_t{count});
    EXPECT_EQ(log().count_containing("Caught exception"), 0U);
}

// Adds and deletes addresses until it is stopped, or the daemon has its list of addresses: more
// would only fill the daemon's receive buffer.
class Churn {
public:
    Churn(kt::Kernel &kernel, const std::string &link, kt::LineLog &log)
        : thread([this, &kernel, link, &log] {
              for (int i = 0; !stopping; i = (i + 1) % 40) {
                  const std::string address = "2001:db8:ffff::" + std::to_string(1 + i) + "/128";
                  kernel.try_add_address(link, address);
                  kernel.try_delete_address(link, address);
                  if (log.find("Info: void CSync::discover(): requesting routes") >= 0) {
                      return;
                  }
              }
          }) {}
    ~Churn() {
        stopping = true;
        thread.join();
    }
    Churn(const Churn &) = delete;
    Churn &operator=(const Churn &) = delete;

private:
    std::atomic<bool> stopping{false};
    std::thread thread;
};

// While addresses are added and removed, the kernel's list may lack some that existed all the time;
// if the daemon treated it as complete, it would remove their nodes. The changes are on a link that
// is not tracked, so that they alone cannot change the store.
TEST_F(DiscoveryTest, ExistingAddressesSurviveStartsWhileOthersChange) {
    add_eth(0);
    add_eth(1, "other");
    service.start();
    store.make_interface(1);
    constexpr int count = 300;
    for (int i = 1; i <= count; ++i) {
        device.add_address("eth0", "2001:db8:0:" + std::to_string(i) + "::1/64");
    }
    ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    start_daemon_and_wait();
    ASSERT_TRUE(becomes([&] { return store.addresses(1).size() == count + 1; }));
    ASSERT_EQ(stop_daemon(), 0);
    const std::string before = store.dump();

    rebuilds_allowed = true; // without a large receive buffer these changes overrun it
    kt::Kernel churning(sandbox.device());
    std::size_t repeated = 0;
    int starts = 0;
    // On a busy machine fewer dumps are interrupted; there one is enough.
    const auto begin = kt::clock_type::now();
    const auto shown = [&] {
        const std::chrono::minutes patience(repeated > 0 ? 1 : 3);
        return repeated >= 6 || kt::clock_type::now() > begin + patience;
    };
    for (; !shown(); ++starts) {
        {
            start_daemon({"-d", "-D", "3"});
            const Churn churn(churning, "other1", log());
            ASSERT_TRUE(logged(kt::normal_operation));
        }
        ASSERT_TRUE(settle());
        const std::size_t repeats =
            log().count("Info: void CSync::handle_dump_end(): dump was interrupted, "
                        "requested it again");
        EXPECT_LE(repeats, 3U * 3U) << "at most three times for each of the three dumps";
        repeated += repeats;
        EXPECT_EQ(log().count_containing("Removing unknown/junk node"), 0U);
        ASSERT_EQ(stop_daemon(), 0);
        EXPECT_EQ(store.dump(), before);
    }
    EXPECT_GT(repeated, 0U) << "no dump was interrupted, so nothing was shown";
    std::cout << "dumps requested again: " << repeated << " in " << starts << " starts\n";
}

// A link that comes and goes while the daemon lists the links.
TEST_F(DiscoveryTest, LinksThatComeAndGoDuringTheStartAreFollowed) {
    add_eth(0);
    service.start();
    store.set_address(1, "1", "2001:db8::1/64");
    store.set_address(2, "1", "2001:db8::2/64");
    start_daemon();
    add_eth(1);
    EXPECT_TRUE(becomes([&] { return both_have(1, "2001:db8::1/64"); }));
    EXPECT_TRUE(becomes([&] { return both_have(2, "2001:db8::2/64"); }));
    EXPECT_TRUE(settle());
}

} // namespace
