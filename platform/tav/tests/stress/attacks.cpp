// Clients that try to stop all others: how much each attack slows down a well-behaved client, and
// how much memory the service uses.
#include <CLI/CLI.hpp>

#include <poll.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <functional>
#include <thread>

#include "client/admin.h"
#include "stress/measure.h"
#include "stress/service.h"
#include "support/raw_peer.h"

namespace {

using Strings = std::vector<std::string>;
using tav::Item;
using tav::ItemKind;
using tav::Op;
using tavtest::request_frame;

Item set_item(const std::string &path) {
    return {ItemKind::set, path, {element_type_integer, "1", tav::no_time}};
}

std::string transaction(const std::vector<Item> &items) {
    return request_frame(Op::transact, [&items](tav::Writer &out) { put_all(out, items); });
}

std::vector<Item> leaves(const std::string &stem, int number) {
    std::vector<Item> items;
    for (int i = 0; i < number; ++i) {
        items.push_back(set_item(stem + std::to_string(i)));
    }
    return items;
}

void write(const std::vector<Item> &items) {
    const stress::Client client;
    std::vector<api_status_t> statuses;
    if (tav::transact(client.tav.handle, items, statuses) != 0 ||
        statuses.front() != api_status_ok) {
        throw std::runtime_error("the store could not be filled");
    }
}

// Kilobytes of /proc/PID/status.
long memory(stress::Service &service, const std::string &field) {
    std::ifstream file("/proc/" + std::to_string(service.process().pid()) + "/status");
    for (std::string word; file >> word;) {
        if (word == field + ":") {
            long kilobytes = 0;
            file >> kilobytes;
            return kilobytes;
        }
    }
    return 0;
}

// Connections that send a request again and again and discard what they receive, or, if `deaf`,
// receive nothing.
class Swarm {
public:
    Swarm(const std::string &socket, int connections, const Strings &first,
          const std::string &request, bool deaf)
        : again(request) {
        for (int i = 0; i < connections; ++i) {
            clients.push_back(std::make_unique<tavtest::RawClient>(socket));
            for (const std::string &frame : first) {
                clients.back()->calls.send(frame);
            }
        }
        if (!deaf) {
            receiving = std::thread([this] { receive(); });
        }
        if (!again.empty()) {
            sending = std::thread([this] { send(); });
        }
    }
    ~Swarm() {
        stop = true;
        for (const auto &client : clients) {
            ::shutdown(client->calls.fd(), SHUT_RDWR);
        }
        for (std::thread *thread : {&sending, &receiving}) {
            if (thread->joinable()) {
                thread->join();
            }
        }
    }

private:
    void send() {
        std::vector<std::size_t> sent(clients.size());
        while (!stop) {
            std::vector<pollfd> entries;
            for (const auto &client : clients) {
                entries.push_back({client->calls.fd(), POLLOUT, 0});
            }
            ::poll(entries.data(), entries.size(), 100);
            for (std::size_t i = 0; i < clients.size(); ++i) {
                const std::string_view rest = std::string_view(again).substr(sent[i]);
                const ssize_t done = ::send(clients[i]->calls.fd(), rest.data(), rest.size(),
                                            MSG_DONTWAIT | MSG_NOSIGNAL);
                sent[i] =
                    (sent[i] + static_cast<std::size_t>(std::max<ssize_t>(done, 0))) % again.size();
            }
        }
    }
    void receive() {
        std::string space(std::size_t{1} << 20, '\0');
        while (!stop) {
            std::vector<pollfd> entries;
            for (const auto &client : clients) {
                entries.push_back({client->calls.fd(), POLLIN, 0});
            }
            ::poll(entries.data(), entries.size(), 100);
            for (const auto &client : clients) {
                static_cast<void>(
                    ::recv(client->calls.fd(), space.data(), space.size(), MSG_DONTWAIT));
            }
        }
    }

    std::string again;
    std::vector<std::unique_ptr<tavtest::RawClient>> clients;
    std::atomic<bool> stop{false};
    std::thread sending;
    std::thread receiving;
};

std::string registration() {
    return request_frame(Op::event_register, [](tav::Writer &out) {
        put(out, tav::Registration{"/", api_event_change, true});
    });
}

bool run(const Strings &options, std::chrono::seconds span) {
    stress::Service service(TAVD_PROGRAM, options);
    service.start();
    for (int part = 0; part < 5; ++part) {
        write(leaves("/many/" + std::to_string(part) + "/", 20000));
    }
    for (int part = 0; part < 2; ++part) {
        write(leaves("/wide/" + std::string(240, 'n') + std::to_string(part), 30000));
    }
    bool served = true;
    const auto beside = [&](const char *what,
                            const std::vector<std::function<std::unique_ptr<Swarm>()>> &attack) {
        const long before = memory(service, "VmRSS");
        std::vector<std::unique_ptr<Swarm>> swarms;
        for (const auto &begin : attack) {
            swarms.push_back(begin());
        }
        const stress::Measured measured = stress::measure(span);
        stress::print(what, measured);
        served = served && measured.served;
        const long during = memory(service, "VmRSS");
        swarms.clear();
        stress::measure(std::chrono::seconds(2));
        std::printf("%46s memory: %ld MiB before, %ld at the end, %ld after it\n", "",
                    before / 1024, during / 1024, memory(service, "VmRSS") / 1024);
        std::fflush(stdout);
    };
    const auto swarm = [&service](int connections, const Strings &first, const std::string &again,
                                  bool deaf = false) {
        return [&service, connections, first, again, deaf] {
            return std::make_unique<Swarm>(service.socket(), connections, first, again, deaf);
        };
    };
    const auto on_path = [](Op op, const char *path) {
        return request_frame(op, [path](tav::Writer &out) { put(out, std::string_view(path)); });
    };
    beside("  alone", {});
    beside("  120 clients dump 160,000 leaves", {swarm(120, {}, on_path(Op::dump, "/"))});
    beside("  120 clients list 60,000 names of 245 bytes",
           {swarm(120, {}, on_path(Op::list, "/wide"))});
    beside("  120 clients read 50,000 paths at a time",
           {swarm(120, {}, request_frame(Op::read, [](tav::Writer &out) {
                      put_all(out, Strings(50000, "/many/1/1"));
                  }))});
    beside("  126 that never fetch, one writes 49,000 leaves",
           {swarm(100, {registration()}, "", true),
            swarm(1, {},
                  transaction(leaves("/many/0/", 20000)) + transaction(leaves("/more/", 29000)))});
    beside("  one touches / 2,000 times a call",
           {swarm(1, {}, transaction(std::vector<Item>(2000, {ItemKind::touch, "/", {}})))});
    beside("  one writes 45,000 leaves over unfetched events",
           {swarm(1, {registration()}, transaction(leaves("/stale/", 45000)), false),
            swarm(1, {}, transaction(leaves("/stale/", 45000)))});
    beside("  100 clients send requests and take no answer",
           {swarm(100, {}, on_path(Op::dump, "/"), true)});
    return served;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Measures how much clients that try to stop a well-behaved one slow it down."};
    int seconds = 5;
    std::string mode;
    app.add_option("--seconds", seconds, "for each line")->capture_default_str();
    app.add_option("--only", mode, "memory, normal or full");
    CLI11_PARSE(app, argc, argv);
    try {
        stress::print_head();
        const std::chrono::seconds span(seconds);
        bool served = true;
        const auto run_mode = [&](const char *name, const Strings &options) {
            if (mode.empty() || mode == name) {
                std::printf("%s\n", name);
                served = run(options, span) && served;
            }
        };
        run_mode("memory", {"--memory"});
        run_mode("normal", {"--database", "%store.db", "--durability", "normal"});
        run_mode("full", {"--database", "%store.db"});
        return served ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
