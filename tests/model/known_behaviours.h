// The start of the tests of known behaviours: one link and a service. tandrel(8) lists each
// behaviour and its remedy under CAVEATS; these tests, and for links that go down also
// ctl/kernel/link_down_test.cpp, keep that list correct.
#pragma once

#include "harness/world.h"

namespace model {

class KnownBehaviourTest : public kt::KernelTest {
protected:
    void SetUp() override {
        add_eth(0);
        service.start();
        store.make_interface(1);
        ASSERT_TRUE(becomes([&] { return !device.link_local("eth0").empty(); }));
    }

    void start(const kt::spawn_options_t &options = {}) {
        start_daemon_and_wait({"-d", "-D", "4"}, options);
    }

    // Any edit causes a synchronisation.
    void synchronise() {
        store.set_gateway(9, "fe80::" + std::to_string(++edits)); // no link has this number
        ASSERT_TRUE(settle());
    }

    static void switch_on(const std::string &name) {
        kt::write_file("/proc/sys/net/ipv6/" + name, "1");
    }

    void run_ip(const std::vector<std::string> &arguments) {
        std::vector<std::string> all{"/usr/bin/env", "ip"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        kt::Process ip(sandbox, all);
        ASSERT_EQ(ip.wait_exit(), 0) << ip.errors().tail(5);
    }

    std::string type_of(const std::string &text) {
        for (const auto &stored : store.addresses(1)) {
            if (stored.address == text) {
                return stored.type;
            }
        }
        return "absent";
    }

    std::size_t times_stored(const std::string &text) {
        std::size_t times = 0;
        for (const auto &stored : store.addresses(1)) {
            times += stored.address == text ? 1U : 0U;
        }
        return times;
    }

    const std::string address = "2001:db8::5/64";
    int edits = 0;
};

} // namespace model
