// When a client is woken: the rules of its descriptor, without sockets and without a clock of their
// own. PROTOCOL.md says why they are right.
//
// A client is "signalled" from the moment the wake-up byte was sent until it acknowledged it, with
// a fetch or without, and at no time is there more than one byte that was not acknowledged. Every
// member takes the current time, which never goes back.
#ifndef TAV_SERVICE_WAKE_H
#define TAV_SERVICE_WAKE_H

#include <chrono>
#include <optional>
#include <tuple>

namespace tav {

using Time = std::chrono::steady_clock::time_point;

class Wake {
public:
    // An event was added to the client's queue.
    void event(Time now);
    // The client made a request other than a ping, an acknowledgement or a fetch; `unfetched` tells
    // whether events wait for it. Those that it only acknowledged are signalled again: a client
    // that works on asks for its events, and the descriptor must not stay silent about them.
    void request(Time now, bool unfetched);
    // The client pinged. While a byte waits for the client's pause after a request, that counts as
    // one: the client is still at work.
    void ping(Time now);
    // The client was shown the byte and leaves its events alone. True when there is one to drain.
    bool acknowledge(Time now);
    // The client fetched everything. True when there is a byte to drain.
    bool fetch(Time now);

    // When the byte is due, if one is to be sent at all.
    std::optional<Time> due() const;
    // To be called right before the byte is sent, not before due().
    void sent();

    bool signalled() const { return outstanding; }

    // Everything that the object remembers, so that states can be compared and counted.
    using State = std::tuple<bool, std::optional<Time>, std::optional<Time>, std::optional<Time>>;
    State state() const { return {outstanding, wanted_since, last_request, acknowledged}; }

private:
    void want(Time now);

    bool outstanding = false;         // a byte was sent and not acknowledged
    std::optional<Time> wanted_since; // a byte is to be sent; never while one is outstanding
    std::optional<Time> last_request; // or ping that counts as one
    std::optional<Time> acknowledged; // without a fetch
};

} // namespace tav

#endif
