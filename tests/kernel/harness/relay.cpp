#include "harness/relay.h"

#include <cstdio>
#include <utility>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "harness/sandbox.h"

namespace kt {
namespace {

sockaddr_un address_of(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(static_cast<char *>(address.sun_path), sizeof address.sun_path, "%s",
                  path.c_str());
    return address;
}

} // namespace

Relay::Relay(const std::string &path, std::string service, int cuts)
    : service_path(std::move(service)), cuts_left(cuts) {
    const sockaddr_un address = address_of(path);
    listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0 ||
        bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 8) != 0) {
        fail("relay socket");
    }
    thread = std::thread([this] { work(); });
}

Relay::~Relay() {
    stopping = true;
    thread.join();
    close_all();
    close(listener);
}

void Relay::close_all() {
    for (const auto &pair : pairs) {
        close(pair.client);
        close(pair.service);
    }
    pairs.clear();
}

void Relay::accept_client() {
    const int client = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    const int service = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = address_of(service_path);
    if (client < 0 || service < 0 ||
        connect(service, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        close(client);
        close(service);
        return;
    }
    pairs.push_back({client, service});
}

bool Relay::pass(const pair_t &pair, bool from_client) {
    char buffer[65536];
    const ssize_t length = read(from_client ? pair.client : pair.service, buffer, sizeof buffer);
    if (length <= 0) {
        return false;
    }
    // The client waits for each answer, so bytes that arrive together are one request.
    if (from_client && cuts_left > 0 && ++requests == 3) {
        requests = 0;
        --cuts_left;
        close_all();
        return true;
    }
    return write(from_client ? pair.service : pair.client, buffer,
                 static_cast<std::size_t>(length)) == length;
}

void Relay::work() {
    while (!stopping) {
        std::vector<pollfd> polled{{listener, POLLIN, 0}};
        for (const auto &pair : pairs) {
            polled.push_back({pair.client, POLLIN, 0});
            polled.push_back({pair.service, POLLIN, 0});
        }
        if (poll(polled.data(), polled.size(), 20) <= 0) {
            continue;
        }
        // One source per round: serving it may change the list.
        for (std::size_t i = 0; i < polled.size(); ++i) {
            if (polled[i].revents == 0) {
                continue;
            }
            if (i == 0) {
                accept_client();
                break;
            }
            const pair_t pair = pairs[(i - 1) / 2];
            if (!pass(pair, i % 2 == 1)) {
                close(pair.client);
                close(pair.service);
                pairs.erase(pairs.begin() + static_cast<std::ptrdiff_t>((i - 1) / 2));
            }
            break;
        }
    }
}

} // namespace kt
