// A store with more faults than the real one, while a user and the kernel continue to make changes.
// The daemon may rebuild as often as necessary; it must not spin, hang, crash or lose the user's
// settings, and once the store works again, both sides must agree.

#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <thread>

#include "harness/world.h"

namespace {

// The fault: a plan of the service's, or of the calls (see faults/plan.h).
struct fault_t {
    const char *name;
    const char *service;
    const char *calls;
    bool rebuilds; // the daemon must rebuild
};

const fault_t faults[] = {
    {"RefusedWrites", "refuse:on=write+remove:every=2", "", false},
    {"RefusedReads", "refuse:on=read:every=3", "", false},
    {"RefusedRegistrations", "refuse:on=register+watchdog:every=2", "", false},
    {"SenselessReplies", "garble:every=31", "", true},
    {"RepliesThatDoNotCome", "hang:every=37", "", true},
    {"CallsThatAreNotDone", "hang:every=37:undone", "", true},
    {"RepliesCutInTheMiddle", "cut:every=29", "", true},
    {"Overflows", "overflow:every=43", "", true},
    {"Echoes", "echo", "", false},
    {"DuplicatedEvents", "duplicate", "", false},
    {"ReorderedEvents", "reorder", "", false},
    {"SpuriousReadiness", "spurious", "", false},
    {"FailedReads", "", "fail:on=read+list:every=23:result=-5", true},
    {"FailedWrites", "", "fail:on=write+remove:every=5:result=-1", true},
    {"FailedWritesNotDone", "", "fail:on=write+remove:every=5:result=7:undone", true},
    {"FailedFetches", "", "fail:on=events:every=4:result=0", true},
    {"FailedFetchesNotDone", "", "fail:on=events:every=4:result=-1:undone", true},
    {"FailedRegistrations", "", "fail:on=register+watchdog+ping:every=3:result=-22", false},
};

std::ostream &operator<<(std::ostream &out, const fault_t &fault) {
    return out << fault.name;
}

class FaultTest : public kt::KeptStoreTest, public ::testing::WithParamInterface<fault_t> {
protected:
    void SetUp() override {
        rebuilds_allowed = true;
        faults_file = sandbox.directory() + "/faults";
        std::ofstream(faults_file) << "staged while this file exists\n";
        add_eth(0);
        add_eth(1);
        const std::string plan = GetParam().service;
        service.start(plan.empty() ? "" : plan + ":while=" + faults_file);
        set_static(1, "1", "2001:db8::1/64");
        set_static(1, "office", "2001:db8::2/64");
        set_static(1, "7", "2001:db8::3/64");
        set_static(2, "1", "2001:db8:2::1/64");
        store.set_gateway(1, "fe80::1");
        device.add_address("eth0", "2001:db8:a::ffff/64");
        auto options = kt::preloaded({{"KT_PAUSE_MS", "500"}, {"TAV_TIMEOUT_MS", "1000"}});
        const std::string calls = GetParam().calls;
        if (!calls.empty()) {
            options.environment["KT_CALL_FAULT"] = calls + ":while=" + faults_file;
        }
        start_daemon({"-d", "-D", "4"}, options);
    }

    void set_static(int interface, const std::string &node, const std::string &address) {
        store.set_address(interface, node, address);
        statics[{interface, node}] = address;
    }
    void remove_static(int interface, const std::string &node) {
        store.remove_address(interface, node);
        statics.erase({interface, node});
    }

    // One edit by a user and one change in the kernel, without waiting.
    void step(int i) {
        const std::string number = std::to_string(i);
        device.add_address("eth0", "2001:db8:a::" + number + "/64");
        set_static(i % 2 + 1, "user" + number, "2001:db8:b::" + number + "/64");
        set_static(1, "office", i % 2 == 0 ? "2001:db8::2/48" : "2001:db8::2/64");
        if (i > 2) {
            device.delete_address("eth0", "2001:db8:a::" + std::to_string(i - 2) + "/64");
        }
        if (i > 3) {
            remove_static((i - 3) % 2 + 1, "user" + std::to_string(i - 3));
        }
        if (i % 4 == 2) {
            store.try_remove(kt::paths::ipv6(1) + "/Default Gateway");
        } else if (i % 4 == 0) {
            store.set_gateway(1, "fe80::" + std::to_string(i + 1));
        }
        if (i == 5) {
            set_static(3, "1", "2001:db8:3::1/64");
            add_eth(2);
        }
    }

    // The user's addresses that the store no longer contains as the user wrote them.
    std::size_t lost() {
        std::size_t count = 0;
        for (const auto &[where, address] : statics) {
            const auto &[interface, node] = where;
            const bool kept = store.read(kt::paths::address_value(interface, node)) == address &&
                              store.read(kt::paths::type_value(interface, node)) == "Static";
            if (!kept) {
                ++count;
                ADD_FAILURE() << "lost: node " << node << " of interface " << interface << ", "
                              << address << "\n"
                              << store.dump();
            }
        }
        return count;
    }

    std::size_t staged() {
        return service.tavd().errors().count_containing("fault: ") +
               log().count_containing("fault: ");
    }
    std::size_t rebuilds() {
        return log().count_containing("Caught exception") +
               log().count_containing("Can't register for settings");
    }

    // Both sides have the same addresses and the same gateway. The store may have an address under
    // two names: one that could not be read for a while is written again, under another name.
    bool agree(int interface) {
        const std::string link = "eth" + std::to_string(interface - 1);
        std::set<std::string> in_kernel;
        for (const auto &address : device.addresses(link)) {
            in_kernel.insert(address.text);
        }
        std::set<std::string> in_store;
        for (const auto &address : store.addresses(interface)) {
            in_store.insert(address.address);
        }
        const auto gateways = device.static_gateways(link);
        const auto gateway = store.gateway(interface);
        return in_kernel == in_store && gateways.size() == (gateway ? 1U : 0U) &&
               (!gateway || gateways.front() == *gateway);
    }
    bool statics_in_kernel() {
        for (const auto &[where, address] : statics) {
            if (!device.has_address("eth" + std::to_string(where.first - 1), address)) {
                return false;
            }
        }
        return true;
    }

    // Processor time and cycles while nothing happens: a loop that spins makes thousands.
    void expect_no_spinning() {
        constexpr int seconds = 3;
        const double before = kt::processor_seconds(daemon->pid());
        const std::size_t from = log().size();
        std::this_thread::sleep_for(std::chrono::seconds(seconds));
        EXPECT_LT(kt::processor_seconds(daemon->pid()) - before, 0.5 * seconds);
        EXPECT_LT(log().count("Info: Entering select()...", from), 200U * seconds);
    }

    std::string faults_file;
    std::map<std::pair<int, std::string>, std::string> statics; // interface and node: address
};

TEST_P(FaultTest, TheUsersSettingsSurviveAndBothSidesAgreeAtTheEnd) {
    constexpr int steps = 20;
    for (int i = 1; i <= steps; ++i) {
        step(i);
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        ASSERT_EQ(lost(), 0U) << "in step " << i;
        ASSERT_TRUE(daemon->running()) << "in step " << i;
    }
    EXPECT_TRUE(becomes([&] { return staged() > 0; })) << "nothing was staged";
    EXPECT_TRUE(becomes([&] { return rebuilds() > 0 || !GetParam().rebuilds; }));
    expect_no_spinning();

    ASSERT_EQ(std::remove(faults_file.c_str()), 0);
    const std::size_t faulty = staged();
    const std::size_t rebuilt = rebuilds();
    // The next synchronisation completes what a refusal prevented.
    set_static(1, "last", "2001:db8::1a57/64");
    EXPECT_TRUE(becomes([&] { return statics_in_kernel(); }));
    EXPECT_TRUE(becomes([&] { return agree(1) && agree(2) && agree(3); })) << store.dump();
    const std::size_t missing = lost();
    EXPECT_TRUE(settle());
    EXPECT_EQ(missing, 0U);
    EXPECT_GT(log().count(kt::normal_operation), 0U);
    std::cout << "fault " << GetParam().name << ": " << faulty << " staged, " << rebuilt
              << " rebuilds, " << statics.size() << " Static addresses, " << missing << " lost\n";
}

INSTANTIATE_TEST_SUITE_P(Store, FaultTest, ::testing::ValuesIn(faults),
                         [](const auto &one) { return std::string(one.param.name); });

} // namespace
