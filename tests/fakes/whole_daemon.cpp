#include "fakes/whole_daemon.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include "fakes/daemon_main.h"
#include "fakes/engine_fixture.h"
#include "fakes/fake_libnl.h"
#include "fakes/fake_memory.h"
#include "fakes/fake_os.h"
#include "fakes/fake_tav.h"
#include "shell/signals.h"

using fake_libnl::datagram_t;

namespace {

constexpr int exit_fd = 80;
constexpr int pause_seconds = 10;

void put(const std::string &interface, const std::string &node, const std::string &address,
         const std::string &type) {
    const tk_string path = at(interface + "/IPv6/Addresses/" + node);
    fake_tav::put(path + "/Address/Value", address);
    fake_tav::put(path + "/Type/Value", type);
}

template <typename T>
T read_at(const fake_libnl::bytes_t &bytes, std::size_t offset) {
    T value{};
    std::memcpy(&value, &bytes.at(offset + sizeof value - 1) - (sizeof value - 1), sizeof value);
    return value;
}

} // namespace

WholeDaemon::WholeDaemon() {
    fakes::reset_all();
    journal::clear();
    captured::clear();
    exit_requested = 0;

    auto &os = fake_os::state();
    os.pipe.returns(0);
    os.pipe_read = exit_fd;
    os.sigaction.returns(0);
    os.write.returns(1);
    os.close.returns(0);
    os.setsockopt.returns(0);
    os.fork.returns(0);
    os.setsid.returns(1);
    os.chdir.returns(0);
    os.umask.returns(0);
    os.open.returns(0);
    os.dup.returns(1).returns(2);
    os.setpriority.returns(0);
    os.select.answered_by([this](const fake_os::select_call_t &call, std::vector<int> &ready) {
        return select(call.seconds, ready);
    });
    when_idle = [] { signal_handler(SIGTERM); };

    addresses = {{3, "fe80::1", 64, RT_SCOPE_LINK},
                 {3, "2001:db8::6", 64, 0},
                 {4, "fe80::2", 64, RT_SCOPE_LINK},
                 {4, "2001:db8:2::1", 64, 0}};
    gateways = {{3, "fe80::8"}, {4, "fe80::22"}};
    put("1", "1", "2001:db8::5/64", "Static");
    put("1", "office", "2001:db8::6/48", "Static");
    put("1", "3", "2001:db8::7/64", "Automatic");
    put("1", "4", "fe80::1/64", "Link-Local");
    put("1", "broken", "nonsense", "Static");
    fake_tav::put(at("1/IPv6/Default Gateway/Value"), "fe80::9");
    put("2", "1", "2001:db8:2::5/64", "Static");
    fake_tav::put(at("2/IPv6/Default Gateway/Value"), "fe80::22");
    put("3", "1", "2001:db8:3::5/64", "Static");
}

WholeDaemon::end_t WholeDaemon::run(const std::vector<std::string> &arguments) {
    const auto ending = ending_of_daemon(arguments);
    fake_memory::stop();
    follow_changes();
    return {ending.how, ending.status};
}

std::vector<std::string> WholeDaemon::kernel() {
    std::vector<std::string> all;
    for (const auto &address : addresses) {
        all.push_back(std::to_string(address.ifindex) + " " + address.text + "/" +
                      std::to_string(address.length));
    }
    for (const auto &[ifindex, gateway] : gateways) {
        all.push_back(std::to_string(ifindex) + " via " + gateway);
    }
    std::sort(all.begin(), all.end());
    return all;
}

std::vector<std::string> WholeDaemon::store() {
    std::vector<std::string> all;
    for (const auto &interface : fake_tav::children(interfaces_node)) {
        const tk_string ipv6 = at(interface + "/IPv6");
        const tk_string gateway = ipv6 + "/Default Gateway/Value";
        if (fake_tav::exists(gateway)) {
            all.push_back(interface + " via " + fake_tav::text(gateway));
        }
        for (const auto &node : fake_tav::children(ipv6 + "/Addresses")) {
            const tk_string path = ipv6 + "/Addresses/" + node;
            const bool chosen = interface == "2" && node != "1";
            all.push_back(interface + " " + (chosen ? "*" : node) + " " +
                          fake_tav::text(path + "/Address/Value") + " " +
                          fake_tav::text(path + "/Type/Value"));
        }
    }
    std::sort(all.begin(), all.end());
    return all;
}

int WholeDaemon::unreleased() {
    const auto &libnl = fake_libnl::state();
    const auto &tav = fake_tav::state();
    return static_cast<int>(libnl.sockets_allocated - libnl.sockets_freed) +
           static_cast<int>(libnl.messages_allocated - libnl.messages_freed) +
           static_cast<int>(tav.clients_opened - tav.clients_closed);
}

int WholeDaemon::select(long seconds, std::vector<int> &ready) {
    if (exit_requested != 0) {
        // The first select after the signal may be the one that it interrupts.
        if (interrupts && !exit_was_requested) {
            exit_was_requested = true;
            return EINTR;
        }
        ready = {exit_fd};
        return 0;
    }
    if (seconds == pause_seconds) {
        fake_libnl::drop_datagrams(); // the socket is closed, or is about to be
        requests_answered = fake_libnl::state().requests.size();
        answering.clear();
        return 0;
    }
    answer_requests();
    if (fake_libnl::queued() == 0) {
        when_idle();
        ready = exit_requested != 0 ? std::vector<int>{exit_fd} : std::vector<int>{};
        return 0;
    }
    const int answered = answering.front();
    answering.erase(answering.begin());
    if (before_answer) {
        before_answer(answered, answering.empty());
    }
    ready = {fake_libnl::state().fd};
    return 0;
}

// Each dump as two datagrams: the records, and its end.
void WholeDaemon::answer_requests() {
    follow_changes();
    const auto &requests = fake_libnl::state().requests;
    for (; requests_answered < requests.size(); ++requests_answered) {
        const int type = requests[requests_answered].type;
        datagram_t answer;
        if (type == RTM_GETLINK) {
            answer.link(RTM_NEWLINK, 3, "eth0").link(RTM_NEWLINK, 4, "eth1");
        } else if (type == RTM_GETADDR) {
            for (const auto &address : addresses) {
                answer.address(RTM_NEWADDR, address.ifindex, address.text, address.length,
                               address.scope);
            }
        } else {
            for (const auto &[ifindex, gateway] : gateways) {
                answer.route(RTM_NEWROUTE, ifindex, gateway);
            }
        }
        if (!answer.bytes().empty()) {
            fake_libnl::queue_datagram(answer);
            answering.push_back(type);
        }
        fake_libnl::queue_datagram(datagram_t().done());
        answering.push_back(type);
    }
}

// The kernel carries out the requests.
void WholeDaemon::follow_changes() {
    const auto &changes = fake_libnl::state().changes;
    for (; changes_followed < changes.size(); ++changes_followed) {
        const auto &change = changes[changes_followed];
        if (change.type == RTM_NEWADDR || change.type == RTM_DELADDR) {
            const auto header = read_at<ifaddrmsg>(change.body, 0);
            const auto bytes = read_at<in6_addr>(change.body, sizeof header + sizeof(rtattr));
            const kernel_address_t address{static_cast<int>(header.ifa_index), text_of(bytes),
                                           header.ifa_prefixlen, header.ifa_scope};
            addresses.erase(address);
            if (change.type == RTM_NEWADDR) {
                addresses.insert(address);
            }
        } else {
            const std::size_t index_at = sizeof(rtmsg) + sizeof(rtattr);
            const auto ifindex = read_at<int>(change.body, index_at);
            const auto bytes =
                read_at<in6_addr>(change.body, index_at + sizeof ifindex + sizeof(rtattr));
            gateways.erase({ifindex, text_of(bytes)});
            if (change.type == RTM_NEWROUTE) {
                gateways.insert({ifindex, text_of(bytes)});
            }
        }
    }
}

RebuildTest::RebuildTest() {
    WholeDaemon undisturbed;
    EXPECT_EQ(undisturbed.run().status, 0);
    kernel_then = undisturbed.kernel();
    store_then = WholeDaemon::store();
    EXPECT_EQ(journal::count("log 3 "), 0U);
}

void RebuildTest::at_first_synchronisation(WholeDaemon &daemon, std::function<void()> action) {
    daemon.before_answer = [action = std::move(action), done = false](int request,
                                                                      bool last) mutable {
        if (request == RTM_GETROUTE && last && !done) {
            done = true;
            action();
        }
    };
}

void RebuildTest::expect_one_rebuild_and_the_same_end(WholeDaemon &daemon,
                                                      const std::string &caught) {
    EXPECT_EQ(journal::matching("log 3 Error: Caught"),
              std::vector<std::string>{"log 3 Error: " + caught});
    // The store's connection is closed first, the channel only after the pause.
    const std::size_t reported = journal::find("log 3 Error: Caught");
    const std::size_t closed = journal::find("mlr_close()", reported);
    const std::size_t paused = journal::find("select(10)", closed);
    const std::size_t connected = journal::find("mlr_init()", paused);
    EXPECT_EQ(closed, reported + 1);
    EXPECT_EQ(paused, closed + 1);
    EXPECT_NE(connected, journal::none);
    EXPECT_EQ(journal::count("select(10)"), 2U); // this one, and the one at the end
    EXPECT_EQ(journal::count("mlr_init()"), 2U);
    EXPECT_EQ(WholeDaemon::unreleased(), 0);
    EXPECT_EQ(daemon.kernel(), kernel_then);
    EXPECT_EQ(WholeDaemon::store(), store_then);
    EXPECT_EQ(captured::log_texts().back(), "Info: Exiting tandrel daemon");
}
