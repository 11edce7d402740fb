// The command nudge: makes the daemon synchronise, now or whenever a link comes up.
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <map>
#include <memory>
#include <new>

#include <netlink/netlink.h>
#include <netlink/socket.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <linux/rtnetlink.h>

#include "ctl/daemon_state.h"
#include "ctl/edit.h"
#include "ctl/rules.h"
#include "ctl/text.h"
#include "netlink/wire.h"

namespace ctl {

namespace {

// Any interface will do: the daemon synchronises all of them.
void nudge_once(const options_t &options) {
    client_t client;
    client.require();
    for (const stored_interface_t &interface : read_store(client.tav, options.prefix).interfaces) {
        if (interface.number != 0) {
            touch_interface(client, options, interface.number);
            return;
        }
    }
    throw refusal("the store has no interface node, so there is nothing to synchronise; create one "
                  "with 'tandrelctl interface add'");
}

// Receives notifications about links.
class link_socket_t {
public:
    link_socket_t() : sock(nl_socket_alloc(), nl_socket_free) {
        if (sock == nullptr) {
            throw std::bad_alloc();
        }
        require(nl_connect(sock.get(), NETLINK_ROUTE));
        require(nl_socket_add_memberships(sock.get(), RTNLGRP_LINK, 0));
        require(nl_socket_set_nonblocking(sock.get()));
    }

    int fd() const { return nl_socket_get_fd(sock.get()); }

    // Reads all pending notifications and visits each link in them. False when notifications were
    // lost.
    template <typename Visit>
    bool receive(const Visit &visit) {
        for (;;) {
            sockaddr_nl peer{};
            wire::owned_datagram_t datagram;
            datagram.length = nl_recv(sock.get(), &peer, &datagram.bytes, nullptr);
            if (datagram.length <= 0) {
                return datagram.length == 0 || datagram.length == -NLE_AGAIN;
            }
            // Each notification is a separate datagram.
            const wire::message_walk message(datagram);
            if (message.header().nlmsg_type == RTM_NEWLINK &&
                message.payload<ifinfomsg>().ifi_family == AF_UNSPEC) {
                visit(link_of_message(datagram.bytes, datagram.length));
            }
        }
    }

private:
    static void require(int result) {
        if (result != 0) {
            throw std::runtime_error(std::string("cannot watch the kernel's links: ") +
                                     nl_geterror(result));
        }
    }

    std::unique_ptr<nl_sock, decltype(&nl_socket_free)> sock;
};

class follower_t {
public:
    explicit follower_t(const options_t &given) : options(given) {
        library_reports = false; // otherwise each failed attempt would be reported
    }

    int run() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigprocmask(SIG_BLOCK, &set, nullptr);
        const int signals = signalfd(-1, &set, SFD_CLOEXEC);
        look_at_all();
        // For links that came up before this process started.
        reason = "started";
        for (;;) {
            if (!reason.empty()) {
                try_nudge();
            }
            std::array<pollfd, 2> entries{{{signals, POLLIN, 0}, {socket.fd(), POLLIN, 0}}};
            constexpr int retry_milliseconds = 1000;
            const int ready =
                poll(entries.data(), entries.size(), reason.empty() ? -1 : retry_milliseconds);
            if (ready > 0 && entries[0].revents != 0) {
                close(signals);
                return exit_done;
            }
            if (ready > 0 && !socket.receive([this](const kernel_link_t &link) { see(link); })) {
                look_at_all();
            }
        }
    }

private:
    void look_at_all() {
        for (const kernel_link_t &link : read_kernel().links) {
            see(link);
        }
    }

    // Administratively up, then connected: the kernel accepts routes after the first, and uses them
    // after the second.
    void see(const kernel_link_t &link) {
        const int now = (link.up ? 1 : 0) + (link.carrier ? 1 : 0);
        int &before = states[link.index];
        if (now > before && has_prefix(link.name, options.prefix)) {
            reason = shown(link.name) + " came up";
        }
        before = now;
    }

    void try_nudge() {
        try {
            nudge_once(options);
            std::cout << reason << ": asked tandrel to synchronise" << std::endl;
            reason.clear();
            complained = false;
        } catch (const std::exception &error) {
            if (!complained) {
                std::cerr << "tandrelctl: " << error.what() << "; trying again every second\n";
                complained = true;
            }
        }
    }

    const options_t &options;
    link_socket_t socket; // opened before the first look, so that no change in between is missed
    std::map<std::int32_t, int> states;
    std::string reason; // why the daemon must be nudged; empty: it need not be
    bool complained = false;
};

} // namespace

int nudge(const options_t &options) {
    if (options.follow) {
        return follower_t(options).run();
    }
    nudge_once(options);
    client_t client;
    const auto finding = daemon_finding(find_daemon(client));
    if (finding && finding->severity() == severity_t::difference) {
        throw refusal("nothing was synchronised: tandrel: " + finding->sentence() + "\n    -> " +
                      finding->remedy());
    }
    return exit_done;
}

} // namespace ctl
