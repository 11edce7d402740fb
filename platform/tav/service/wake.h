// When a client is woken: the rules for its descriptor, without sockets and without a clock.
// PROTOCOL.md gives the reasons for these rules.
//
// A client is "signalled" from the moment when the wake-up byte is sent until the client
// acknowledges it, with or without a fetch. There is never more than one unacknowledged byte. The
// time passed to the members must never go back.
#pragma once

#include <chrono>
#include <optional>
#include <tuple>

namespace tav {

using Time = std::chrono::steady_clock::time_point;

class Wake {
public:
    // An event was added to the client's queue, or is about to be.
    void event(Time now);
    // The client made a request other than a ping, an acknowledgement or a fetch; `unfetched` says
    // whether events wait for it. Events that it only acknowledged are signalled again: a client
    // that continues to work may want its events, and the descriptor must report them.
    void request(Time now, bool unfetched);
    // The client pinged. While a byte waits for a pause in the client's requests, a ping is treated
    // like a request: the client is still working.
    void ping(Time now);
    // The client saw the byte and ignores its events. True if there is a byte to drain.
    bool acknowledge(Time now);
    // The client fetched everything. True if there is a byte to drain.
    bool fetch(Time now);

    // The time when the byte is due; empty if none must be sent.
    std::optional<Time> due() const;
    // Call this right before the byte is sent, and not before due().
    void sent();

    bool signalled() const { return outstanding; }

    // The object's complete state, so that tests can compare and count states.
    using State = std::tuple<bool, std::optional<Time>, std::optional<Time>, std::optional<Time>>;
    State state() const { return {outstanding, wanted_since, last_request, acknowledged}; }

private:
    void want(Time now);

    bool outstanding = false;         // a byte was sent and is not yet acknowledged
    std::optional<Time> wanted_since; // a byte must be sent; never while one is outstanding
    std::optional<Time> last_request; // or of a ping that is treated like one
    std::optional<Time> acknowledged; // without a fetch
};

} // namespace tav
