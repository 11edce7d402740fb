#include "harness/world.h"

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include <unistd.h>

#include <linux/if_arp.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>

namespace kt {

KernelTest::KernelTest(Service::Keep keep)
    : device(sandbox.device()), neighbour(sandbox.neighbour()), service(sandbox, keep),
      store(service.socket()) {
    // Duplicate address detection would keep each address tentative for a second or two.
    for (const std::string which : {"all", "default"}) {
        write_file("/proc/sys/net/ipv6/conf/" + which + "/accept_dad", "0");
    }
    device.set_up("lo");
}

void KernelTest::TearDown() {
    if (HasFailure() && daemon != nullptr) {
        std::cout << "The daemon's last lines:\n" << log().tail(60);
    }
    if (daemon != nullptr && daemon->running()) {
        // When all tests run under a fault, each may rebuild, and rebuilds are counted.
        if (std::getenv("KT_REBUILDS") != nullptr) {
            std::cout << "rebuilds: " << log().count_containing("Caught exception") << "\n";
        } else if (!rebuilds_allowed) {
            EXPECT_EQ(log().find_containing("Caught exception"), -1) << log().tail(40);
        }
        EXPECT_EQ(stop_daemon(), 0) << log().tail(40);
    }
    if (service.started() && service.tavd().running()) {
        store.disconnect();
        service.stop();
    }
}

void KernelTest::add_eth(int number, const std::string &prefix) {
    const std::string name = prefix + std::to_string(number);
    const std::string peer = "peer" + std::to_string(number);
    device.add_veth(name, peer, sandbox.neighbour());
    neighbour.set_up(peer);
    device.set_up(name);
}

std::string KernelTest::index_of(const std::string &link) {
    return std::to_string(device.index(link));
}

Process &KernelTest::start_daemon(const std::vector<std::string> &arguments,
                                  const spawn_options_t &options) {
    std::vector<std::string> all{program("TANDREL")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    spawn_options_t with_store = options;
    // A whole run of the tests may ask for a shorter pause, or for calls of the store that fail.
    if (std::getenv("KT_PAUSE_MS") != nullptr || std::getenv("KT_CALL_FAULT") != nullptr) {
        with_store.environment = preloaded(options.environment).environment;
    }
    with_store.environment["TAV_SOCKET"] = service.socket();
    daemon = std::make_unique<Process>(sandbox, all, with_store);
    return *daemon;
}

Process &KernelTest::start_daemon_and_wait(const std::vector<std::string> &arguments,
                                           const spawn_options_t &options) {
    start_daemon(arguments, options);
    // Nothing after this makes sense without it.
    if (!logged(normal_operation) || !settle()) {
        throw std::runtime_error("the daemon did not get into normal operation");
    }
    return *daemon;
}

int KernelTest::stop_daemon() {
    daemon->signal(SIGTERM);
    return daemon->wait_exit();
}

// The result of waiting for one line.
enum class KernelTest::Seen { line, rebuild, nothing };

KernelTest::Seen KernelTest::see(const std::string &line, std::size_t from) {
    const std::size_t at = log().wait_for_either(line, normal_operation, from);
    if (at == 0) {
        return Seen::nothing;
    }
    return log().lines(at - 1).front().text == line ? Seen::line : Seen::rebuild;
}

KernelTest::Seen KernelTest::see_kernel_mark(std::size_t from) {
    const std::string name = "mark" + std::to_string(++marks);
    device.forge(RTNLGRP_LINK, forged_link(name));
    return see("Info: Skipping update for link '" + name + "'", from);
}

bool KernelTest::settle() {
    // A test may let a check take longer, or not end.
    eventually([this] { return !device.is_checking(); }, std::chrono::seconds(3));
    // A rebuild in between loses the mark and everything else in progress.
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::size_t from = log().size();
        store.write(mark_path, std::to_string(++marks));
        // The line precedes the synchronisation that the events after it cause; the kernel's first
        // mark is seen after that, and the second one after the kernel's answers to it.
        Seen seen = see("Info: Processing TAV event: cmd = 2, path = '" + mark_path + "'", from);
        for (int i = 0; i < 2 && seen == Seen::line; ++i) {
            seen = see_kernel_mark(from);
        }
        if (seen != Seen::rebuild) {
            return seen == Seen::line;
        }
    }
    return false;
}

void KernelTest::meanwhile(const std::function<void()> &changes) {
    daemon->freeze();
    changes();
    // The service pauses between a client's request and the next wake-up.
    usleep(300000);
    daemon->thaw();
}

testing::AssertionResult KernelTest::logged(const std::string &whole_line, std::size_t from) {
    if (log().wait_for(whole_line, from) != 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "the daemon did not log: " << whole_line;
}

testing::AssertionResult KernelTest::logged_part(const std::string &part, std::size_t from) {
    if (log().wait_for_containing(part, from) != 0) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure() << "the daemon logged no line with: " << part;
}

testing::AssertionResult KernelTest::becomes(const std::function<bool()> &condition) {
    return eventually(condition) ? testing::AssertionSuccess()
                                 : testing::AssertionFailure() << "it did not come to that";
}

bool KernelTest::both_have(int interface, const std::string &address) {
    return device.has_address("eth" + std::to_string(interface - 1), address) &&
           !store.node_of(interface, address).empty();
}

bool KernelTest::neither_has(int interface, const std::string &address) {
    return !device.has_address("eth" + std::to_string(interface - 1), address) &&
           store.node_of(interface, address).empty();
}

testing::AssertionResult KernelTest::gateway_becomes(const std::string &gateway,
                                                     const std::string &link) {
    return becomes([&] { return device.static_gateways(link) == std::vector{gateway}; });
}

void KernelTest::expect_working() {
    EXPECT_TRUE(settle());
    store.set_address(1, "works", "2001:db8::77/64");
    EXPECT_TRUE(becomes([&] { return device.has_address("eth0", "2001:db8::77/64"); }));
    device.add_address("eth0", "2001:db8::78/64");
    EXPECT_TRUE(becomes([&] { return store.has_address(1, "2001:db8::78/64", "Automatic"); }));
}

std::vector<unsigned char> forged_link(const std::string &name, std::uint16_t type) {
    ifinfomsg header{};
    header.ifi_type = ARPHRD_ETHER;
    header.ifi_index = 9999;
    const unsigned char hardware_address[6] = {2, 0, 0, 0, 0, 1};
    return Message(type, 0)
        .append(header)
        .attribute(IFLA_ADDRESS, hardware_address, sizeof hardware_address)
        .attribute(IFLA_IFNAME, name)
        .bytes();
}

} // namespace kt
