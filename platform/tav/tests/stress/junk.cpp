// Sends the service what no client would send: random bytes, frames that are cut or altered, and
// connections that end anywhere. At the same time a client makes proper calls, each of which must
// be answered correctly.
#include <CLI/CLI.hpp>

#include <atomic>
#include <cstdio>
#include <random>
#include <thread>

#include "client/admin.h"
#include "stress/service.h"
#include "support/raw_peer.h"

namespace {

using tav::Op;
using tavtest::RawPeer;
using tavtest::request_frame;
using Random = std::mt19937;

std::string random_bytes(Random &random, std::size_t most) {
    std::string bytes(random() % (most + 1), '\0');
    for (char &byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

// Mostly of a length that a frame may have.
std::string random_length(Random &random) {
    std::string bytes(tav::length_bytes, '\0');
    for (std::size_t i = random() % (bytes.size() + 1); i < bytes.size(); ++i) {
        bytes[i] = static_cast<char>(random());
    }
    return bytes;
}

// A request as a client could send it, of a random kind. Writes go below /junk.
std::string proper_request(Random &random) {
    const std::string path = "/junk/" + std::to_string(random() % 20);
    switch (random() % 10) {
    case 0:
        return request_frame(Op::read, [&](tav::Writer &out) {
            put_all(out, std::vector<std::string>{path, "/junk"});
        });
    case 1:
        return request_frame(Op::list, [&](tav::Writer &out) { put(out, path); });
    case 2:
        return request_frame(Op::transact, [&](tav::Writer &out) {
            put_all(out, std::vector<tav::Item>{
                             {tav::ItemKind::set, path, {element_type_string, "x", -1}}});
        });
    case 3:
        return request_frame(Op::transact, [&](tav::Writer &out) {
            put_all(out, std::vector<tav::Item>{{tav::ItemKind::remove, path, {}}});
        });
    case 4:
        return request_frame(Op::event_register, [&](tav::Writer &out) {
            put(out, tav::Registration{path, api_event_change, true});
        });
    case 5:
        return request_frame(Op::events_get);
    case 6:
        return request_frame(Op::ping_after_answers);
    case 7:
        return request_frame(Op::read_ahead,
                             [](tav::Writer &out) { put(out, std::string_view("/junk")); });
    case 8:
        return request_frame(Op::watchdog_register, [](tav::Writer &out) {
            put(out, tav::WatchdogRequest{"junk", 60, true});
        });
    default:
        return request_frame(Op::dump,
                             [](tav::Writer &out) { put(out, std::string_view("/junk")); });
    }
}

std::string hello() {
    return request_frame(Op::hello, [](tav::Writer &out) {
        put(out, tav::Hello{tav::magic, tav::protocol_version});
    });
}

// Cut, altered in some bits, with another length, followed by other bytes, or unchanged.
std::string spoil(Random &random, std::string frame) {
    switch (random() % 5) {
    case 0:
        frame.resize(random() % frame.size());
        break;
    case 1:
        for (unsigned int i = 0; i <= random() % 4; ++i) {
            frame[random() % frame.size()] ^= static_cast<char>(1U << (random() % 8));
        }
        break;
    case 2:
        frame.replace(0, tav::length_bytes, random_length(random));
        break;
    case 3:
        frame += random_bytes(random, 100);
        break;
    default:
        break;
    }
    return frame;
}

// One connection, or a client's two.
void misbehave(Random &random, const std::string &socket) {
    switch (random() % 6) {
    case 0:
        break; // closes the connection without sending anything
    case 1:
        RawPeer(socket).send(random_bytes(random, 300));
        return;
    case 2:
    case 3:
        RawPeer(socket).send(spoil(random, hello()));
        return;
    default: {
        const tavtest::RawClient client(socket);
        std::string frames;
        for (unsigned int i = 0; i <= random() % 3; ++i) {
            frames += spoil(random, proper_request(random));
        }
        client.calls.send(frames);
        if (random() % 8 == 0) {
            client.wake.send(random_bytes(random, 10));
        }
        return;
    }
    }
    const RawPeer silent(socket);
}

// Makes proper calls until stopped; counts them, and those that failed.
void behave(const std::atomic<bool> &stop, std::atomic<long> &calls, std::atomic<long> &wrong) {
    stress::Client client;
    for (long number = 1; !stop; ++number) {
        const toolkit::CElement value(std::to_string(number), -1);
        api_status_t status = api_status_none;
        toolkit::CElement read;
        element_property_t property = element_property_none;
        const bool right =
            client.tav.set_leaf("/good/value", value, status, mlr_tribool_unset, "") == 0 &&
            status == api_status_ok &&
            client.tav.get_leaf("/good/value", status, read, property) == 0 &&
            read.to_string() == value.to_string();
        calls += 2;
        wrong += right ? 0 : 1;
        if (!right) {
            return;
        }
    }
}

// Waits until the service has closed all connections except the two of this client.
bool lets_go_of_all() {
    stress::Client client;
    for (int attempt = 0; attempt < 3000; ++attempt) {
        tav::ServiceStatus status;
        if (tav::service_status(client.tav.handle, status) != 0) {
            return false;
        }
        if (status.clients.size() == 1) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

} // namespace

int main(int argc, char **argv) {
    CLI::App app{
        "Sends the settings service random and truncated frames while a proper client works."};
    long connections = 3000;
    unsigned int seed = std::random_device()();
    app.add_option("--connections", connections, "how many clients misbehave")
        ->capture_default_str();
    app.add_option("--seed", seed, "of the random choices");
    CLI11_PARSE(app, argc, argv);
    try {
        stress::Service service(TAVD_PROGRAM, {"--memory"});
        service.start();
        std::atomic<bool> stop{false};
        std::atomic<long> calls{0};
        std::atomic<long> wrong{0};
        std::thread good([&] { behave(stop, calls, wrong); });
        Random random(seed);
        bool alive = true;
        try {
            for (long i = 0; i < connections; ++i) {
                misbehave(random, service.socket());
            }
        } catch (const std::exception &error) {
            std::fprintf(stderr, "seed %u: cannot connect any more: %s\n", seed, error.what());
            alive = false;
        }
        stop = true;
        good.join();
        alive = alive && service.process().running() && lets_go_of_all();
        std::printf(
            "%ld connections with junk (seed %u): service %s, %ld calls of a proper client, "
            "%ld of them wrong\n",
            connections, seed, alive ? "serves" : "FAILED", calls.load(), wrong.load());
        return alive && wrong == 0 && calls > 0 ? 0 : 1;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "seed %u: %s\n", seed, error.what());
        return 1;
    }
}
