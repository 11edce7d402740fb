#include "ctl/changes.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include "netlink/wire.h"

namespace ctl {

namespace {

constexpr std::chrono::seconds reconnect_interval{1};

} // namespace

changes_t::changes_t(client_t &store) : client(store), kernel(std::make_unique<CNetlink>()) {}

changes_t::~changes_t() {
    if (signals >= 0) {
        close(signals);
    }
}

void changes_t::catch_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGWINCH);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signals = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

changes_t::seen_t changes_t::wait(clock_type::time_point deadline) {
    if (!client.connected()) {
        deadline = std::min(deadline, clock_type::now() + reconnect_interval);
    }
    std::array<pollfd, 4> entries{
        {{signals, POLLIN, 0},
         {kernel->fd(), POLLIN, 0},
         {client.connected() ? mlr_get_fd(client.tav.handle) : -1, POLLIN, 0},
         {input, POLLIN, 0}}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - clock_type::now());
    const int timeout = static_cast<int>(std::clamp<long long>(left.count(), 0, 3600000));
    const int ready = poll(entries.data(), entries.size(), timeout);
    if (ready == 0 || (ready < 0 && errno == EINTR)) {
        return seen_t::timeout;
    }
    if (entries[0].revents != 0) {
        signalfd_siginfo info{};
        const bool whole = read(signals, &info, sizeof info) == sizeof info;
        return whole && info.ssi_signo == SIGWINCH ? seen_t::change : seen_t::signal;
    }
    if (entries[3].revents != 0) {
        return seen_t::keys;
    }
    if (entries[1].revents != 0) {
        drain_kernel();
    }
    if (entries[2].revents != 0) {
        drain_store();
    }
    return seen_t::change;
}

std::string changes_t::take_keys() {
    std::array<char, 256> buffer{};
    const ssize_t count = read(input, buffer.data(), buffer.size());
    if (count <= 0) {
        input = -1; // closed
        return "";
    }
    return {buffer.data(), static_cast<std::size_t>(count)};
}

// The content does not matter: the caller reads both views again.
void changes_t::drain_kernel() {
    pollfd entry{kernel->fd(), POLLIN, 0};
    while (poll(&entry, 1, 0) > 0) {
        wire::owned_datagram_t datagram;
        try {
            kernel->recv(datagram.bytes, datagram.length);
        } catch (const netlink_err &) {
            // Some notifications were lost, which is a change too. Reading the error clears it.
            return;
        }
    }
}

void changes_t::drain_store() {
    try {
        client.take_events();
    } catch (const store_lost &) {
        client.disconnect();
    }
}

} // namespace ctl
