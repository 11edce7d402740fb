// Every interleaving of a small world: a client that waits, pings, fetches and works like the
// library's users, a writer, the passing of time, and the real wake-up rules of service and
// library.
//
// The service handles a request at one moment; the reply reaches the client at a later one, and
// anything may happen in between. Pings have no reply: the client continues, and the service
// handles them at some time before the next request. The library may answer a request from memory;
// the service then learns of it with the next ping. The client is in normal operation (it fetches
// whenever its wait saw the descriptor readable) or in discovery (it does not fetch events); it may
// change from discovery to normal operation once, with a request.
#include <gtest/gtest.h>

#include <optional>
#include <tuple>
#include <unordered_set>
#include <vector>

#include "client/descriptor.h"
#include "protocol/protocol.h"
#include "service/wake.h"

using namespace tav;
using std::chrono::milliseconds;

namespace {

enum class Phase {
    waiting,       // in select
    pinging,       // the wait is over
    acknowledging, // the request is on its way
    acknowledged,  // the reply is on its way
    fetching,
    fetch_answered,
    requesting, // any other request
};

struct World {
    Wake wake;
    int time = 0; // milliseconds
    // What may still happen.
    int events = 0;
    int refused = 0; // events that are announced, but whose commit fails
    int short_ticks = 0;
    int long_ticks = 0;
    int other_readiness = 0; // waits that end because of another descriptor
    int requests = 0;
    bool remembers = false; // requests may be answered from memory
    bool discovery = false;
    bool resuming = false; // discovery is over, but the service does not know yet

    int pending = 0; // events in the client's queue
    int bytes = 0;   // in the wake-up connection
    Phase phase = Phase::waiting;
    int pings = 0;               // on their way
    unsigned int announcing = 0; // which of them say that requests were answered from memory
    bool unannounced = false;    // the next one will
    bool must_ask = false;       // the library leaves the next request to the service
    int announced = -1;          // when the service handled the last ping that says so
    Attention attention;
    bool saw = false;      // the last wait saw the descriptor readable
    bool drain = false;    // the pending reply says so
    int shown = 0;         // waits that saw the present byte
    int silent_since = -1; // events wait and the descriptor is silent; -1: not so
    int acknowledged = -1; // when a byte was acknowledged without a fetch

    Time now() const { return Time(milliseconds(1000000 + time)); }
    auto key() const {
        return std::make_tuple(wake.state(), time, events, refused, short_ticks, long_ticks,
                               other_readiness, requests, discovery, resuming, pending, bytes,
                               phase, pings, attention.state(), saw, drain, shown, silent_since,
                               acknowledged, announcing, unannounced, must_ask, announced);
    }
};

using Key = decltype(World().key());

struct Hash {
    template <typename Number>
    std::size_t operator()(Number number) const {
        return static_cast<std::size_t>(number);
    }
    std::size_t operator()(Time time) const {
        return static_cast<std::size_t>(time.time_since_epoch().count());
    }
    template <typename Part>
    std::size_t operator()(const std::optional<Part> &part) const {
        return part ? 1 + (*this)(*part) : 0;
    }
    template <typename... Parts>
    std::size_t operator()(const std::tuple<Parts...> &parts) const {
        std::size_t all = 0;
        std::apply([&](const auto &...part) { ((all = all * 1000003 + (*this)(part)), ...); },
                   parts);
        return all;
    }
};

class Explorer {
public:
    // Returns the number of different states, and fails the test in the first one that is wrong.
    std::size_t explore(const World &start) {
        visit(start);
        while (!open.empty() && !::testing::Test::HasFailure()) {
            const World world = open.back();
            open.pop_back();
            step_environment(world);
            step_client(world);
        }
        return seen.size();
    }

private:
    void visit(World world) {
        if (world.pending == 0 || world.bytes > 0 || world.discovery || world.resuming) {
            world.silent_since = -1;
        } else if (world.silent_since < 0) {
            world.silent_since = world.time;
        }
        check(world);
        if (seen.insert(world.key()).second) {
            open.push_back(world);
        }
    }

    static void check(const World &world) {
        // The descriptor is readable exactly while the service regards the client as signalled,
        // except between a reply that acknowledges and the drain.
        EXPECT_EQ(world.bytes, (world.wake.signalled() ? 1 : 0) + (world.drain ? 1 : 0));
        // (b) Without a fetch, at most two waits see a byte.
        EXPECT_LE(world.shown, 2);
        // (a), (d) While a client in normal operation waits, a byte is on its way for unfetched
        // events, and arrives in time.
        if (!world.discovery && world.phase == Phase::waiting && world.silent_since >= 0) {
            const auto due = world.wake.due();
            ASSERT_TRUE(due.has_value()) << "events would stay unfetched for ever";
            const Time limit =
                Time(milliseconds(1000000 + world.silent_since)) + wake_wait_limit + wake_pause;
            EXPECT_LE(due->time_since_epoch().count(), limit.time_since_epoch().count());
        }
    }

    void step_environment(const World &world) {
        if (world.events > 0) {
            World next = world;
            --next.events;
            ++next.pending;
            next.wake.event(next.now());
            visit(next);
        }
        if (world.refused > 0) {
            World next = world;
            --next.refused;
            next.wake.event(next.now());
            visit(next);
        }
        if (world.short_ticks > 0) {
            World next = world;
            --next.short_ticks;
            next.time += 25;
            visit(next);
        }
        if (world.long_ticks > 0) {
            World next = world;
            --next.long_ticks;
            next.time += 1000;
            visit(next);
        }
        if (world.wake.due() && *world.wake.due() <= world.now()) {
            World next = world;
            // (d) The service leaves a client time that answers itself, but not for ever.
            if (next.announced >= 0) {
                const Time wanted = *std::get<1>(next.wake.state());
                EXPECT_TRUE(next.time - next.announced >= wake_pause.count() ||
                            next.now() - wanted >= wake_wait_limit);
            }
            next.wake.sent();
            ++next.bytes;
            // (b) After an acknowledgement without a fetch the next byte is delayed.
            if (next.acknowledged >= 0) {
                EXPECT_GE(next.time - next.acknowledged, wake_pause.count());
            }
            visit(next);
        }
        if (world.pings > 0) {
            World next = world;
            --next.pings;
            if ((std::exchange(next.announcing, next.announcing >> 1U) & 1U) != 0) {
                next.wake.request(next.now(), next.pending > 0);
                next.announced = next.time;
            }
            next.wake.ping(next.now());
            visit(next);
        }
        if (world.discovery && world.phase == Phase::waiting) {
            World next = world; // discovery is over: the synchronisation begins with a request
            next.discovery = false;
            next.resuming = true;
            next.phase = Phase::requesting;
            visit(next);
            if (world.remembers && !world.must_ask) {
                World remembering = world;
                remembering.discovery = false;
                remembering.unannounced = true;
                visit(remembering);
            }
        }
    }

    void step_client(const World &world) {
        World next = world;
        switch (world.phase) {
        case Phase::waiting:
            if (world.bytes > 0) {
                next.saw = true;
                ++next.shown;
            } else if (world.other_readiness > 0) {
                --next.other_readiness;
                next.saw = false;
            } else {
                return; // blocked
            }
            next.phase = Phase::pinging;
            break;
        case Phase::pinging:
            next.announcing |= (world.unannounced ? 1U : 0U) << world.pings;
            next.unannounced = false;
            ++next.pings;
            if (next.attention.is_missing(world.bytes > 0)) {
                next.phase = Phase::acknowledging;
                break;
            }
            after_ping(next);
            return;
        case Phase::acknowledged:
            take_reply(next);
            after_ping(next);
            return;
        case Phase::fetch_answered:
            take_reply(next);
            next.attention.reset();
            go_on(next);
            return;
        default:
            if (world.pings > 0) {
                return; // are handled first
            }
            handle_request(next);
        }
        visit(next);
    }

    static void handle_request(World &world) {
        if (world.phase == Phase::acknowledging) {
            world.drain = world.wake.acknowledge(world.now());
            EXPECT_TRUE(world.drain) << "the byte that the ping found was acknowledged before";
            world.acknowledged = world.time;
            world.must_ask = true;
            world.phase = Phase::acknowledged;
        } else if (world.phase == Phase::fetching) {
            world.unannounced = false;
            world.drain = world.wake.fetch(world.now());
            world.pending = 0;
            world.phase = Phase::fetch_answered;
        } else {
            world.wake.request(world.now(), world.pending > 0);
            world.resuming = false;
            world.must_ask = false;
            world.unannounced = false;
            world.phase = Phase::waiting;
        }
    }

    void after_ping(World world) {
        if (!world.saw || world.discovery) {
            go_on(world);
            return;
        }
        world.phase = Phase::fetching;
        visit(world);
    }

    static void take_reply(World &world) {
        if (world.drain) {
            ASSERT_GT(world.bytes, 0) << "the byte to drain is not there";
            --world.bytes;
            world.drain = false;
            world.shown = 0; // a remaining byte is a new one
        }
    }

    // After its cycle the client may make a request, or wait again.
    void go_on(World world) {
        if (world.requests > 0 && !world.discovery) {
            World working = world;
            --working.requests;
            working.phase = Phase::requesting;
            visit(working);
            if (world.remembers && !world.must_ask) {
                World remembering = world;
                --remembering.requests;
                remembering.unannounced = true;
                remembering.phase = Phase::waiting;
                visit(remembering);
            }
        }
        world.phase = Phase::waiting;
        visit(world);
    }

    std::unordered_set<Key, Hash> seen;
    std::vector<World> open;
};

struct Start {
    const char *name;
    int events;
    int refused;
    int other_readiness;
    int requests;
    bool remembers;
    bool discovery; // in which the descriptor falls silent
};

class WakeModel : public testing::TestWithParam<Start> {};

INSTANTIATE_TEST_SUITE_P(From, WakeModel,
                         testing::Values(Start{"NormalOperation", 3, 0, 3, 2, false, false},
                                         Start{"RefusedCommits", 2, 2, 2, 1, false, false},
                                         Start{"Discovery", 3, 0, 3, 1, false, true},
                                         Start{"AnswersFromMemory", 2, 0, 2, 2, true, false},
                                         Start{"DiscoveryWithAnswersFromMemory", 2, 0, 2, 1, true,
                                               true}),
                         [](const auto &tested) { return tested.param.name; });

} // namespace

TEST_P(WakeModel, NoEventIsLostInAnyInterleaving) {
    World world;
    world.events = GetParam().events;
    world.refused = GetParam().refused;
    world.short_ticks = 3;
    world.long_ticks = 1;
    world.other_readiness = GetParam().other_readiness;
    world.requests = GetParam().requests;
    world.remembers = GetParam().remembers;
    world.discovery = GetParam().discovery;
    EXPECT_GT(Explorer().explore(world), 10000U);
}
