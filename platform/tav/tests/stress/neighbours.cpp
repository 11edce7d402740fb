// How other clients affect a well-behaved one: the time of its reads and writes alone, next to
// clients that flood the service, and next to clients that do not read their replies.
#include <CLI/CLI.hpp>

#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <thread>

#include "client/admin.h"
#include "stress/measure.h"
#include "stress/service.h"
#include "support/raw_peer.h"

namespace {

using Strings = std::vector<std::string>;
using tav::Op;

// Sends `request` without a pause and discards the replies, until stopped.
void flood(const std::string &socket, const std::function<std::string(int)> &request,
           const std::atomic<bool> &stop) {
    const tavtest::RawClient client(socket);
    std::thread reading([&client] {
        std::string space(std::size_t{1} << 20, '\0');
        while (::recv(client.calls.fd(), space.data(), space.size(), 0) > 0) {
        }
    });
    for (int number = 0; !stop;) {
        std::string frames;
        for (int i = 0; i < 100; ++i) {
            frames += request(++number);
        }
        client.calls.send(frames);
    }
    ::shutdown(client.calls.fd(), SHUT_RDWR);
    reading.join();
}

std::string read_request(int) {
    return tavtest::request_frame(Op::read,
                                  [](tav::Writer &out) { put_all(out, Strings{"/good/value"}); });
}

std::string write_request(int number) {
    return tavtest::request_frame(Op::transact, [number](tav::Writer &out) {
        put_all(out, std::vector<tav::Item>{{tav::ItemKind::set,
                                             "/flood/" + std::to_string(number % 1000),
                                             {element_type_integer, std::to_string(number), -1}}});
    });
}

// Clients that register for all events and request much, and read nothing of it.
struct Deaf {
    explicit Deaf(const std::string &socket) : client(socket) {
        client.calls.send(tavtest::request_frame(Op::event_register, [](tav::Writer &out) {
            put(out, tav::Registration{"/", api_event_change, true});
        }));
        client.calls.send(tavtest::request_frame(
            Op::read, [](tav::Writer &out) { put_all(out, Strings(60, "/big")); }));
    }
    tavtest::RawClient client;
};

bool run(const Strings &options, std::chrono::seconds span) {
    stress::Service service(TAVD_PROGRAM, options);
    service.start();
    {
        stress::Client client;
        api_status_t status = api_status_none;
        client.tav.set_leaf("/big", {std::string(65536, 'x'), -1}, status, mlr_tribool_unset, "");
    }
    bool served = true;
    const auto beside = [&](const char *what, const std::vector<std::function<void()>> &others,
                            std::atomic<bool> &stop) {
        std::vector<std::thread> threads(others.begin(), others.end());
        const stress::Measured measured = stress::measure(span);
        stress::print(what, measured);
        served = served && measured.served;
        stop = true;
        for (std::thread &thread : threads) {
            thread.join();
        }
        stop = false;
    };
    std::atomic<bool> stop{false};
    const auto reads = [&] { flood(service.socket(), read_request, stop); };
    const auto writes = [&] { flood(service.socket(), write_request, stop); };
    beside("  alone", {}, stop);
    beside("  beside a flood of reads", {reads}, stop);
    beside("  beside a flood of writes", {writes}, stop);
    beside("  beside eight floods, half of them writes",
           {reads, writes, reads, writes, reads, writes, reads, writes}, stop);
    std::vector<std::unique_ptr<Deaf>> deaf;
    for (int i = 0; i < 8; ++i) {
        deaf.push_back(std::make_unique<Deaf>(service.socket()));
    }
    beside("  beside eight clients that read nothing", {}, stop);
    beside("  beside these and a flood of writes", {writes}, stop);
    return served;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{"Measures how much other clients slow down a well-behaved one."};
    int seconds = 5;
    app.add_option("--seconds", seconds, "for each line")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        stress::print_head();
        const std::chrono::seconds span(seconds);
        std::printf("in memory\n");
        bool served = run({"--memory"}, span);
        std::printf("on disk, durability normal\n");
        served = run({"--database", "%store.db", "--durability", "normal"}, span) && served;
        std::printf("on disk, durability full\n");
        served = run({"--database", "%store.db"}, span) && served;
        return served ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return 1;
    }
}
